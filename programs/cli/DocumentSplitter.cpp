#include "DocumentSplitter.h"

namespace korlo::settings::cli
{

std::optional<std::string> DocumentSplitter::Take()
{
    for (;;)
    {
        const std::size_t end = _pending.find('\n', _searched);
        if (end == std::string::npos)
        {
            return std::nullopt;
        }
        const std::string_view line = std::string_view(_pending).substr(_searched, end - _searched);
        if (line == "." || line == ".\r")
        {
            std::string document = _pending.substr(0, _searched);
            _pending.erase(0, end + 1);
            _searched = 0;
            return document;
        }
        _searched = end + 1;
    }
}

}  // namespace korlo::settings::cli
