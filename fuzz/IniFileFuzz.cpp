// Whatever the text, loading it neither fails nor breaks anything, and what is saved from the document reads back as
// the same document, by the same text, with no line that would end a block on a connection.

#include <cstdint>
#include <sstream>
#include <string>

#include "Require.h"
#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"

namespace
{

std::string Saved(const korlo::core::IniFile& document)
{
    std::ostringstream out;
    document.SaveToStream(out);
    return out.str();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    korlo::core::Logger::GetLogger("IniFile")->SetThreshold(0);  // half of the inputs are bad lines
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    korlo::core::IniFile document;
    document.LoadFromString(std::string(data, data + size));
    const std::string text = Saved(document);

    korlo::core::IniFile again;
    again.LoadFromString(text);

    using korlo::fuzz::Require;
    Require(again == document, "what is saved reads back as the same document");
    Require(Saved(again) == text, "the same document has the same text");
    Require(("\n" + text).find("\n.\n") == std::string::npos, "no line ends a block on a connection");
    return 0;
}
