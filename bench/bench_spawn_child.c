/* The tiny child of the spawn benchmark: it only ends. */
int main(void) { return 0; }
