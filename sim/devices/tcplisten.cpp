// tov_tcplisten PORT: the simulated WATCHTOWER server's stand-in for a TCP service. Accepts every
// connection on 0.0.0.0:PORT and closes it at once, until killed.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: tov_tcplisten PORT\n");
        return 2;
    }
    int port = atoi(argv[1]);
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    if (sock < 0 || bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0
        || listen(sock, 16) != 0) {
        perror("tov_tcplisten");
        return 1;
    }
    for (;;) {
        int peer = accept(sock, nullptr, nullptr);
        if (peer >= 0)
            close(peer);
    }
}
