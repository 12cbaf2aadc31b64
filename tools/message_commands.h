// The commands that talk to daemons: send, listen, ask.
#ifndef QVL_MESSAGE_COMMANDS_H
#define QVL_MESSAGE_COMMANDS_H

#include <functional>
#include <memory>

namespace CLI
{
class App;
}

namespace qvl
{

struct message_options;

struct release_message_options {
    void operator()(message_options *options) const;
};

// Adds the commands to the command line. When one of them was used, `run` is set and returns the exit status;
// the options must live until then.
[[nodiscard]] std::unique_ptr<message_options, release_message_options>
add_message_commands(CLI::App &app, std::function<int()> &run);

} // namespace qvl

#endif
