#include "BridgeOptions.h"

#include <optional>

#include "NumberText.h"
#include "OptionParsing.h"

namespace korlo::settings::mqtt
{
namespace
{

int ParseLogLevel(const std::string& text)
{
    constexpr int most = 4;
    const int level = NumberIn<int>(text).value_or(-1);
    if (level < 0 || level > most)
    {
        throw EarlyExit(WrongCommandLine, "--log-level: '" + text + "' is not a number from 0 to 4");
    }
    return level;
}

void AddOptions(CLI::App& app, BridgeOptions& options)
{
    app.set_help_flag("-h,--help", "Print this help and exit; so does -h");
    app.set_version_flag("--version", KORLO_VERSION, "Print the version and exit");
    app.add_option("--config", options.configuration, "The configuration, an INI file; it has to be given")
        ->type_name("FILE")
        ->take_last();
    app.add_option_function<std::string>(
           "--log-level", [&options](const std::string& text) { options.logLevel = ParseLogLevel(text); },
           "What is logged: nothing, errors, warnings, information or traces")
        ->type_name("0..4")
        ->take_last()
        ->default_str(std::to_string(options.logLevel));
}

HelpFrame Help()
{
    return {
        "korlo-settings-mqtt --config FILE [OPTION]...",
        "  korlo-settings-mqtt --config /etc/korlo-settings/mqtt.ini\n",
        "If an option that takes one value is repeated, the last one wins. Exit status: 0 after SIGTERM or SIGINT; 2 "
        "the command line or the configuration was wrong; 1 the system refused what the bridge needs to run."};
}

}  // namespace

BridgeOptions ParseOptions(int argc, const char* const* argv)
{
    BridgeOptions options;
    CLI::App app("Reports the settings of a device to an MQTT broker, and takes over what the fleet wants them to be.");
    AddOptions(app, options);
    ParseOptionsOf(app, "korlo-settings-mqtt", Help(), argc, argv);
    if (options.configuration.empty())
    {
        throw EarlyExit(WrongCommandLine, "--config FILE is missing");
    }
    return options;
}

}  // namespace korlo::settings::mqtt
