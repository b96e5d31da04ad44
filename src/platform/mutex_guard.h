// Holds a mutex for a scope.
#ifndef PLATFORM_MUTEX_GUARD_H
#define PLATFORM_MUTEX_GUARD_H

#include <pthread.h>

class mutex_guard {
public:
    explicit mutex_guard(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~mutex_guard() { pthread_mutex_unlock(mutex_); }
    mutex_guard(const mutex_guard &) = delete;
    mutex_guard &operator=(const mutex_guard &) = delete;

private:
    pthread_mutex_t *mutex_;
};

#endif
