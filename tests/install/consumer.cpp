// The C consumer compiled as C++ and linked by the C++ driver through the same CMake package.
#include "consumer.c"
