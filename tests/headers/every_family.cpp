#include "every_family.c"
