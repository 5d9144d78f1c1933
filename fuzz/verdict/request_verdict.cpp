// Says of each stored input of the request target whether the server's parser takes it, for a check
// that asks another parser about the same bytes. One line a file, on standard output:
//
//     complete OFFSET SIZE PATH    the head is the SIZE bytes from OFFSET on
//     refused 0 0 PATH
//     unfinished 0 0 PATH

#include "fuzz/common/check.h"
#include "fuzz/common/growing_block.h"
#include "fuzz/common/input.h"
#include "support/http_message.h"
#include "support/http_parser.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

bool judge(const char* path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "request_verdict: cannot read %s\n", path);
        return false;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file),
                                  std::istreambuf_iterator<char>()};
    Fuzz_Input input(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    input.word(); // says how the target cuts the text
    const std::string_view text = input.rest();
    Growing_Block block(text);
    block.append(text.size());
    HTTP_Request request;
    const HTTP_Parser_State state = HTTP_Request_Parser().parse(block.block(), request);
    if (state == HTTP_PARSER_STATE_HEADERS_DONE) {
        std::printf("complete %zu %zu %s\n", bytes.size() - text.size(), block.consumed(text),
                    path);
    } else {
        std::printf("%s 0 0 %s\n", state == HTTP_PARSER_STATE_ERROR ? "refused" : "unfinished",
                    path);
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    fuzz_quiet_log();
    bool good = argc > 1;
    for (int i = 1; i < argc; ++i) {
        good = judge(argv[i]) && good;
    }
    return good ? 0 : 1;
}
