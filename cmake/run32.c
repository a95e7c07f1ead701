/* Returns 0: the check that the host runs the programs of a 32-bit build. */
int main(void) { return 0; }
