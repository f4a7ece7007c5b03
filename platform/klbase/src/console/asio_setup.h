// Comes before every asio header.
#ifndef KLBASE_CONSOLE_ASIO_SETUP_H_
#define KLBASE_CONSOLE_ASIO_SETUP_H_

// asio chooses its allocation functions by the standard library's headers that were included before it: without one
// here, two files could choose differently, and one free memory that the other allocated.
#include <cstdlib>

// The fences order nothing that one I/O thread and a locked queue of handlers don't order already, and the thread
// sanitizer doesn't know them.
#define ASIO_DISABLE_FENCED_BLOCK

#endif  // KLBASE_CONSOLE_ASIO_SETUP_H_
