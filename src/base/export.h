// export.h - marks what host processes may link against.
//
// Everything is built with hidden visibility; only what carries RUK_API leaves the library.
#ifndef RUK_BASE_EXPORT_H
#define RUK_BASE_EXPORT_H

#define RUK_API __attribute__((visibility("default")))

#endif
