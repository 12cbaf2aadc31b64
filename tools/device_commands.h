// The commands for what devices and daemons hand out beside documents: transceivers, SCSI codes, checksums,
// passwords.
#ifndef QVL_DEVICE_COMMANDS_H
#define QVL_DEVICE_COMMANDS_H

#include <functional>
#include <memory>

namespace CLI
{
class App;
}

namespace qvl
{

struct device_options;

struct release_device_options {
    void operator()(device_options *options) const;
};

// Adds the commands to the command line. When one of them was used, `run` is set and returns the exit status;
// the options must live until then.
[[nodiscard]] std::unique_ptr<device_options, release_device_options>
add_device_commands(CLI::App &app, std::function<int()> &run);

} // namespace qvl

#endif
