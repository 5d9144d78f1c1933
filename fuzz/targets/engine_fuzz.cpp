// The whole connection engine over socket pairs, with plug-ins of every kind: clients that do what
// the input says (fuzz/engine/script.h), and what has to hold whatever they do.
//
// - Nothing but whole and well-formed answers and frames comes back, in order: read_answers().
// - What comes back does not depend on how the clients' bytes were cut.
// - Every connection ends, and leaves no object, descriptor or timer behind.
// - No input takes a second of the processor.

#include "fuzz/engine/answer_reader.h"
#include "fuzz/engine/failure.h"
#include "fuzz/engine/run.h"
#include "fuzz/engine/script.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

extern "C" __attribute__((visibility("default"))) int
LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

double processor_seconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

bool is_cut(const Script& script, unsigned number)
{
    int sends = 0;
    for (const Step& step : script.steps()) {
        sends += step.kind_ == Step::SEND && step.connection_ == number ? 1 : 0;
    }
    return sends > 1;
}

/// Sends the same bytes again, alone and cut in another way.
void compare_with_other_cut(const Script& script, unsigned number, const std::string& answers)
{
    const std::string bytes = script.sent_by(number);
    // What came in pieces comes as a whole; what came as a whole, in small ones.
    const size_t piece = is_cut(script, number) ? bytes.size() : 1 + bytes.size() % 11;
    const Script other = script.alone(bytes, piece);
    Run run(other);
    run.play();
    const std::string others = read_answers(run.conversation(0));
    if (others != answers) {
        fail("the answers depend on how the request was cut: pieces of " + std::to_string(piece) +
                 " give\n" + others + "\n------ instead of ------\n" + answers +
                 "\n------ for ------",
             bytes);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t MOST_BYTES = 8192;
    constexpr double MOST_SECONDS = 1;
    if (size > MOST_BYTES) {
        return 0;
    }
    const double begin = processor_seconds();
    const Script script(data, size);
    Run run(script);
    run.play();
    for (unsigned number = 0; number < Script::CONNECTIONS; ++number) {
        const Conversation& conversation = run.conversation(number);
        const std::string answers = read_answers(conversation);
        if (script.only_sends() && conversation.comparable_ && !conversation.sent_.empty()) {
            compare_with_other_cut(script, number, answers);
        }
    }
    if (processor_seconds() - begin > MOST_SECONDS) {
        fail("the input takes more than a second");
    }
    return 0;
}
