// The smallest program that shows libjack's fault with a replaced server. It
// opens a client, prints "open" and waits for a line on standard input, while
// the caller kills the JACK server and starts a new one under the same name.
// Then it opens a client of the new server and closes the old client: with
// libjack 1.9.21 that close ends in SIGSEGV. Closing the old client first
// (what the node does) works.
#include <cstdio>
#include <jack/jack.h>

int main(void) {
    jack_client_t* old = jack_client_open("widmo_old_client", JackNoStartServer, nullptr);
    if (old == nullptr) {
        fprintf(stderr, "no JACK server\n");
        return 2;
    }
    puts("open");
    fflush(stdout);
    char line[8];
    if (fgets(line, sizeof line, stdin) == nullptr)
        return 3;
    jack_client_t* fresh = jack_client_open("widmo_new_client", JackNoStartServer, nullptr);
    if (fresh == nullptr) {
        fprintf(stderr, "no new JACK server\n");
        return 4;
    }
    jack_client_close(old);
    jack_client_close(fresh);
    puts("closed");
    return 0;
}
