// Symbol visibility: the shared library hides everything but what is marked LARKPOST_API.
#ifndef LARKPOST_EXPORT_H
#define LARKPOST_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define LARKPOST_API __attribute__((visibility("default")))
#else
#define LARKPOST_API
#endif

#endif
