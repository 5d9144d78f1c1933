// A client of a shared-memory listener: asks again and again until the connection ends, and says
// "warm" after the first answer and "end ANSWERS WRONG" at the end. Python has no such client.
//
// mem_load PORT TARGET BODY

#include "tests/support/mem_client.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: mem_load PORT TARGET BODY\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN); // ACE's client writes to a server that may have gone
    const std::string request = get_request(argv[2]);
    const std::string body = argv[3];
    const auto client = connect_mem(static_cast<unsigned short>(std::atoi(argv[1])));
    if (client == nullptr) {
        return 1;
    }
    unsigned long answers = 0;
    unsigned long wrong = 0;
    for (;;) {
        const Wire_Response response = client->exchange(request);
        if (!response.complete) {
            break;
        }
        wrong += response.status != 200 || response.body != body ? 1U : 0U;
        if (++answers == 1) {
            std::puts("warm");
            std::fflush(stdout);
        }
    }
    std::printf("end %lu %lu\n", answers, wrong);
    return wrong == 0 ? 0 : 1;
}
