// SIGINT, SIGTERM and SIGHUP ask the program to end. They are blocked everywhere and looked for by
// the main thread alone: a handler could run on any thread, and interrupt a system call there.
#pragma once

// Blocks them in the calling thread and in the threads it makes from now on.
void block_stop_signals();

// Whether one of them has come, now or earlier. Main thread.
bool stop_requested();

// Waits for one of them for at most `milliseconds`. Main thread.
bool stop_requested_within(long milliseconds);
