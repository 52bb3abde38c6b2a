#include "korlo/core/IniReader.h"

#include "ReadWholeFile.h"
#include "core/IniParser.h"
#include "korlo/osa/Exception.h"

namespace korlo::core
{
namespace
{

/// Adds the line to what a parser finds.
class LineTeller : public IIniSink
{
public:
    LineTeller(std::string_view text, IIniObserver& observer) : _parser(text, *this), _observer(observer) {}

    void Run() { _parser.Run(); }

    void OnGroup(std::string_view name) override { _observer.OnGroup(_parser.GetLineNumber(), name); }

    void OnValue(std::string_view key, std::string_view value) override
    {
        _observer.OnValue(_parser.GetLineNumber(), key, value);
    }

    void OnBadLine(std::size_t number, const char* reason) override { _observer.OnBadLine(number, reason); }

private:
    IniParser _parser;
    IIniObserver& _observer;
};

}  // namespace

void IniReader::ReadText(std::string_view text, IIniObserver& observer)
{
    LineTeller(text, observer).Run();
}

void IniReader::ReadFile(const char* path, IIniObserver& observer)
{
    ReadText(ReadWholeFile(osa::NotNull(path, "Path")), observer);
}

void IniReader::ReadFile(const char* path, IIniObserver& observer, std::size_t mostBytes)
{
    ReadText(ReadWholeFile(osa::NotNull(path, "Path"), osa::RealFileSystem(), mostBytes), observer);
}

}  // namespace korlo::core
