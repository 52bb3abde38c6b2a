#include "support/RulesFile.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "korlo/core/IniFile.h"
#include "korlo/osa/Exception.h"

namespace korlo::benchmarks
{

RulesFile::RulesFile(int count, const std::string& group) : _path("/var/tmp/korlo-bench-rules-XXXXXX.ini")
{
    const int descriptor = mkstemps(_path.data(), 4);
    if (descriptor < 0)
    {
        throw osa::Exception("Failed to make %s", _path.c_str());
    }
    close(descriptor);
    core::IniFile rules;
    for (int number = 1; number < count; ++number)
    {
        const std::string name = "Access/" + std::to_string(number);
        const std::string program = "Program" + std::to_string(number);
        rules[name]["peer"] = "tcp";
        rules[name]["read"] = program + "/*";
        rules[name]["change"] = program + "/State";
        rules[name]["deny"] = program + "/*/Internal";
    }
    const std::string last = "Access/" + std::to_string(count);
    rules[last]["peer"] = "tcp";
    rules[last]["change"] = group;
    std::ofstream file(_path);
    rules.SaveToStream(file);
}

RulesFile::~RulesFile()
{
    std::error_code ignored;
    std::filesystem::remove(_path, ignored);
}

}  // namespace korlo::benchmarks
