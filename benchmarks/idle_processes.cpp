// Is COUNT processes, itself one of them, that wait until their stdin is at its end.
#include <cstdlib>
#include <unistd.h>

int main(int count, char** arguments) {
    for (int number = count > 1 ? std::atoi(arguments[count - 1]) : 1; number > 1; --number)
        if (fork() == 0)
            break;
    char byte;
    while (read(0, &byte, 1) > 0) {
    }
    return 0;
}
