// mem.h - the memory pool: eight size classes whose blocks are recycled instead of freed.
//
// Frame buffers, service messages and records of outstanding requests come from here. A block is
// taken from the system on first demand and goes back to it only in mem_uinit.
// Threads: any number at once.  Locks: one leaf lock, internal.  Signal handlers: no.
#ifndef RUK_MEM_MEM_H
#define RUK_MEM_MEM_H

#include "base/export.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Stands directly in front of every block; 24 bytes on a 32-bit target. */
typedef struct mem_block {
    void *self;             /* this header, as the system allocator gave it */
    uint32_t type;          /* size class, 0..7 */
    void *data;             /* the caller's area, directly behind this header */
    uint32_t size;          /* usable bytes of the class, not what was asked for */
    uint32_t used;          /* bit 0 is 1 while the block is handed out, else the word is 0 */
    struct mem_block *next; /* next free block of the class */
} mem_block;

/** Forget all free blocks without releasing them. Call once before the first use. Returns 0. */
RUK_API int mem_init(void);

/**
 * Take a block of at least size bytes, 0..8192, of the smallest class that holds it: 64, 128, 256,
 * 512, 1024, 2048, 4096 or 8192 bytes. Its content is undefined. Give it back with mem_free.
 *
 * Returns the block, or null: size above 8192 or no memory.
 */
RUK_API void *mem_alloc(uint32_t size);

/**
 * Give back a block of mem_alloc, or the data of one of mem_pop. Null is ignored; a block that is
 * free already is left alone (logged), also by mem_push.
 */
RUK_API void mem_free(void *p);

/**
 * Append a block to the free list of a class, 0..7; oldest first is handed out again. A block of
 * any other class goes straight back to the system. Null is ignored.
 */
RUK_API void mem_push(int32_t type, mem_block *block);

/**
 * Take the oldest free block of a class; give it back with mem_push, or its data with mem_free.
 * Returns null: none free, or class outside 0..7.
 */
RUK_API mem_block *mem_pop(int32_t type);

/** Give every free block back to the system; blocks still handed out stay valid. Returns 0. */
RUK_API int mem_uinit(void);

#ifdef __cplusplus
}
#endif
#endif
