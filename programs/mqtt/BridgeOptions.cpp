#include "BridgeOptions.h"

#include <optional>
#include <vector>

#include <CLI/CLI.hpp>

#include "HelpText.h"
#include "NumberText.h"

namespace korlo::settings::mqtt
{
namespace
{

constexpr int WrongCommandLine = 2;

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

std::string HelpOf(const CLI::App& app)
{
    std::vector<HelpRow> rows;
    for (const CLI::Option* pOption : app.get_options())
    {
        const std::string value = pOption->get_type_name();
        const std::string standard = pOption->get_default_str();
        rows.push_back({"--" + pOption->get_lnames().front() + (value.empty() ? "" : ' ' + value),
                        pOption->get_description() + (standard.empty() ? "." : " (default: " + standard + ").")});
    }
    return HelpText("korlo-settings-mqtt --config FILE [OPTION]...", app.get_description(), rows,
                    "  korlo-settings-mqtt --config /etc/korlo-settings/mqtt.ini\n",
                    "If an option that takes one value is repeated, the last one wins. Exit status: 0 after SIGTERM or "
                    "SIGINT; 2 the command line or the configuration was wrong; 1 the system refused what the bridge "
                    "needs to run.");
}

}  // namespace

BridgeOptions ParseOptions(int argc, const char* const* argv)
{
    BridgeOptions options;
    CLI::App app("Reports the settings of a device to an MQTT broker, and takes over what the fleet wants them to be.");
    AddOptions(app, options);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForHelp&)
    {
        throw EarlyExit(0, HelpOf(app));
    }
    catch (const CLI::CallForVersion&)
    {
        throw EarlyExit(0, "korlo-settings-mqtt " + app.version() + '\n');
    }
    catch (const CLI::ParseError& error)
    {
        throw EarlyExit(WrongCommandLine, error.what());
    }
    if (options.configuration.empty())
    {
        throw EarlyExit(WrongCommandLine, "--config FILE is missing");
    }
    return options;
}

}  // namespace korlo::settings::mqtt
