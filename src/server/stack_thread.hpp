// Threads with a stack of known size, whatever the stack limit that the service was started with.
#pragma once

#include <cstddef>

#include <pthread.h>

namespace spotserver {

// Starts `entry(argument)` in a thread with `stack` bytes. False when the system grants no more
// threads.
bool start_thread(pthread_t& thread, std::size_t stack, void* (*entry)(void*), void* argument);

// Gives back the memory that deeper calls than this one have taken of the calling thread's stack,
// all but 64 KiB. Cost: one system call, and one per thread to find out where its stack lies.
void trim_stack();

}  // namespace spotserver
