// Replaces what libstdc++ expects to know about glibc.
#define __GLIBC_PREREQ(major, minor) 0

typedef struct __locale_struct *__locale_t;
