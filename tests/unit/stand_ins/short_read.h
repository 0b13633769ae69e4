// short_read.h - files that give less than they promised. Linked with --wrap=fread.
#ifndef TESTS_UNIT_STAND_INS_SHORT_READ_H
#define TESTS_UNIT_STAND_INS_SHORT_READ_H

/** The first fread while this stands gives one element less than it was asked for. */
class ShortRead {
public:
    ShortRead();
    ~ShortRead();
    ShortRead(const ShortRead &) = delete;
    ShortRead &operator=(const ShortRead &) = delete;
};

#endif
