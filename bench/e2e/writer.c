/* Write storm inside a container: rewrites two files alternately, as fast as it can, for a
 * number of seconds, so that no two consecutive events on one watch are alike and inotify
 * cannot merge them. Each round opens, writes one line and closes the file (a modify and a
 * close-write event per write). Built static so that it runs in a busybox image.
 *   writer SECONDS FILE_A FILE_B
 * Prints the number of writes made. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static double now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

static int write_once(const char* path, unsigned long n) {
    char line[64];
    int len = snprintf(line, sizeof line, "storm %lu\n", n);
    int fd = open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) return -1;
    int ok = write(fd, line, (size_t)len) == len;
    close(fd);
    return ok ? 0 : -1;
}

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: writer SECONDS FILE_A FILE_B\n");
        return 2;
    }
    double end = now() + atof(argv[1]);
    unsigned long writes = 0;
    /* The clock is read every 256 writes: a clock_gettime per write would be a fifth of it. */
    while ((writes & 255) != 0 || now() < end) {
        if (write_once(argv[2 + (writes & 1)], writes) != 0) {
            perror("writer");
            return 1;
        }
        ++writes;
    }
    printf("%lu\n", writes);
    return 0;
}
