// version.h - which release this is. The build reads it from here.
#ifndef RUK_BASE_VERSION_H
#define RUK_BASE_VERSION_H

#define RUK_VERSION_MAJOR 0
#define RUK_VERSION_MINOR 1
#define RUK_VERSION_PATCH 0

#endif
