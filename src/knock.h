// Somebody else whom a thread hears while it waits for its line.
#pragma once

struct knock_t {
    int fd;                       // becomes readable
    bool (*heed)(void *context);  // called then; whether the wait is given up for it
    void *context;
    const knock_t *also = nullptr;  // one more
};
