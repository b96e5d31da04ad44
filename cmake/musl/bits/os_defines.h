// What libstdc++ asks about the system's C library, in the place of the answers for glibc.
#define __GLIBC_PREREQ(major, minor) 0

typedef struct __locale_struct *__locale_t;
