// in_own_network PROGRAM [ARGUMENT...]: runs a program in a network namespace of its own.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "tests/support/own_network.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: in_own_network PROGRAM [ARGUMENT...]\n", stderr);
        return 2;
    }
    lumora_test::EnterOwnNetwork();
    // A child, because this process may have to hold the ports' lock until the program has ended.
    const pid_t child = fork();
    if (child == 0) {
        execv(argv[1], argv + 1);
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
