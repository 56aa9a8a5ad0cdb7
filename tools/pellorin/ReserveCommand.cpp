#include "ReserveCommand.h"

#include "HostError.h"

namespace pellorin::host {

CLI::App* addReserveCommand(CLI::App& app, ReserveOptions& options) {
    CLI::App* command = app.add_subcommand("reserve", "Make a test reservation for FILE");
    command->add_option("FILE", options.file, "Local file to reserve")->required();
    return command;
}

int runReserve(const ReserveOptions&) {
    throw InputError("reserve is not available yet");
}

}  // namespace pellorin::host
