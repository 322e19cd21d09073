/* Stands at the place of the tool in the private roots of a cross build: runs the tool under the emulator. */
#include <unistd.h>

int main(int argc, char **argv)
{
    char *words[argc + 4];
    words[0] = EMULATOR;
    words[1] = "-0"; /* the name that the tool sees as its own follows */
    words[2] = argv[0];
    words[3] = PROGRAM;
    for (int i = 1; i <= argc; i++)
        words[3 + i] = argv[i];
    execv(EMULATOR, words);
    return 127;
}
