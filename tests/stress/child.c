/* The child the process stress starts: exits with the code given as its
 * only argument. Nothing else, so that thousands of them start quickly. */
#include <stdlib.h>

int main(int argc, char **argv) { return argc > 1 ? atoi(argv[1]) : 0; }
