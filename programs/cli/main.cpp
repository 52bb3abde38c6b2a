// korlo-settings: reads, changes and watches settings from the command line.

#include <csignal>

#include "StandardStreams.h"
#include "Tool.h"

int main(int argc, char* argv[])
{
    korlo::settings::cli::HoldStandardDescriptors();
    std::signal(SIGPIPE, SIG_IGN);  // a reader who goes away shows as an error of the write
    return korlo::settings::cli::RunTool(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
}
