/* Writes the device's IPv4 forwarding table to a file with FIB_SaveForwardingTable, as an
 * application would, and prints one line: the status, the routes written, the seconds the
 * call took and the process's peak resident memory (VmHWM, KiB). The simulator instance
 * comes from IPCLIENT_INSTANCE. Used by bench/compare_iproute2.sh. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "ipclient/fib.h"

static long peak_kib(void) {
    char line[256];
    long kib = -1;
    FILE *f = fopen("/proc/self/status", "r");
    if (f == NULL) return -1;
    while (fgets(line, sizeof line, f) != NULL) {
        if (strncmp(line, "VmHWM:", 6) == 0 && sscanf(line + 6, "%ld", &kib) == 1) break;
    }
    fclose(f);
    return kib;
}

/* Lines of the file after its "[FIB Info]" header: one a route. */
static unsigned long routes_in(const char *path) {
    char buf[1024];
    unsigned long lines = 0;
    FILE *f = fopen(path, "rb");
    if (f == NULL) return 0;
    while (fgets(buf, sizeof buf, f) != NULL) {
        if (strchr(buf, '\n') != NULL) ++lines;
    }
    fclose(f);
    return lines > 0 ? lines - 1 : 0;
}

int main(int argc, char **argv) {
    struct timespec start, end;
    uint32_t status;
    double seconds;
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    clock_gettime(CLOCK_MONOTONIC, &start);
    status = FIB_SaveForwardingTable(argv[1]);
    clock_gettime(CLOCK_MONOTONIC, &end);
    seconds = (double)(end.tv_sec - start.tv_sec) + (double)(end.tv_nsec - start.tv_nsec) / 1e9;
    printf("status=0x%x routes=%lu seconds=%.3f vmhwm_kib=%ld\n", (unsigned)status, routes_in(argv[1]), seconds,
           peak_kib());
    return status == 0 ? 0 : 1;
}
