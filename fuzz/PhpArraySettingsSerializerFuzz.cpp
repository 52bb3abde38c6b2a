// Whatever the text, and in whatever pieces it comes, it is read as a slow model reads it: the same document, the same
// end or the same message. What was read is written as the model writes it, and reads back as the same.

#include <cstdint>
#include <sstream>
#include <string>

#include "Input.h"
#include "PhpArrayModel.h"
#include "Require.h"
#include "korlo/core/IniFile.h"
#include "korlo/osa/Exception.h"
#include "server/PhpArraySettingsSerializer.h"
#include "support/PiecewiseStream.h"
#include "support/StoreModel.h"

namespace korlo::fuzz
{
namespace
{

using settings::server::PhpArraySettingsSerializer;
using settings::server::ToMap;

/// Returns the message of the fault, empty if there is none.
std::string Read(std::istream& in, core::IniFile& document)
{
    try
    {
        PhpArraySettingsSerializer().OnDeserialize(in, document);
        return "";
    }
    catch (const osa::Exception& exception)
    {
        return exception.what();
    }
}

std::string Written(const core::IniFile& document)
{
    settings::common::GroupNameMatcher everything;
    everything.AddNameOrPattern("*");
    std::ostringstream out;
    PhpArraySettingsSerializer().OnSerialize(document, everything, out);
    return out.str();
}

void ReadLikeTheModel(const std::string& text, std::size_t pieceBytes, core::IniFile& document)
{
    const PhpArrayModel model(text);
    PiecewiseStream in(text, pieceBytes);

    Require(Read(in, document) == model.GetMessage().c_str(), "a fault has the documented message");
    Require(ToMap(document) == model.GetGroups(), "what is read is what the text says");
    if (model.GetOutcome() == PhpArrayModel::Outcome::Whole)
    {
        std::ostringstream left;
        left << in.rdbuf();
        Require(left.str() == text.substr(model.GetLength()), "what follows the array stays in the stream");
    }
}

void WriteAndReadBack(const core::IniFile& document)
{
    const std::string text = Written(document);
    Require(text == PhpArrayModel::TextOf(ToMap(document)), "each length and each byte is written");

    core::IniFile again;
    std::istringstream in(text);
    Require(Read(in, again).empty(), "what is written can be read");
    Require(again == document, "what is written reads back as the same document");
    Require(Written(again) == text, "the same document has the same text");
}

}  // namespace
}  // namespace korlo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    korlo::fuzz::Input input(data, size);
    const std::size_t pieceBytes = input.TakeByte() + 1;
    korlo::core::IniFile document;
    korlo::fuzz::ReadLikeTheModel(input.TakeRest(), pieceBytes, document);
    korlo::fuzz::WriteAndReadBack(document);
    return 0;
}
