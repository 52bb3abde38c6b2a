// The PHP form, beside what one would write by hand for a bare std::map.

#include <benchmark/benchmark.h>
#include <charconv>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "server/PhpArraySettingsSerializer.h"
#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

using core::IniFile;
using settings::server::PhpArraySettingsSerializer;

/// Reads a whole text that lies in memory, as the reader below does with a stream that could end anywhere.
class PlainReader
{
public:
    explicit PlainReader(std::string_view text) : _rest(text) {}

    BareMap Read()
    {
        BareMap map;
        for (std::size_t groups = TakeHeader(); groups > 0; --groups)
        {
            auto& values = map[TakeString()];
            for (std::size_t keys = TakeHeader(); keys > 0; --keys)
            {
                std::string key = TakeString();
                values[std::move(key)] = TakeString();
            }
            Take("}");
        }
        Take("}");
        return map;
    }

private:
    void Take(std::string_view token)
    {
        if (!_rest.starts_with(token))
        {
            throw std::runtime_error("The text is not in the PHP form");
        }
        _rest.remove_prefix(token.size());
    }

    std::size_t TakeNumber()
    {
        std::size_t number = 0;
        const auto result = std::from_chars(_rest.data(), _rest.data() + _rest.size(), number);
        _rest.remove_prefix(static_cast<std::size_t>(result.ptr - _rest.data()));
        return number;
    }

    std::size_t TakeHeader()
    {
        Take("a:");
        const std::size_t count = TakeNumber();
        Take(":{");
        return count;
    }

    std::string TakeString()
    {
        Take("s:");
        const std::size_t length = TakeNumber();
        Take(":\"");
        std::string text(_rest.substr(0, length));
        _rest.remove_prefix(text.size());
        Take("\";");
        return text;
    }

    std::string_view _rest;
};

void WritePlainString(std::string& out, const std::string& text)
{
    out += "s:";
    out += std::to_string(text.size());
    out += ":\"";
    out += text;
    out += "\";";
}

std::string WritePlain(const BareMap& map)
{
    std::string out = "a:" + std::to_string(map.size()) + ":{";
    for (const auto& [group, values] : map)
    {
        WritePlainString(out, group);
        out += "a:" + std::to_string(values.size()) + ":{";
        for (const auto& [key, value] : values)
        {
            WritePlainString(out, key);
            WritePlainString(out, value);
        }
        out += '}';
    }
    out += "}\n\n";
    return out;
}

void BM_PhpLoad(benchmark::State& state, Shape shape)
{
    const std::string text = WritePlain(ParseBare(TextOf(shape)));
    for (auto _ : state)
    {
        std::istringstream in(text);
        IniFile ini;
        PhpArraySettingsSerializer().OnDeserialize(in, ini);
        benchmark::DoNotOptimize(ini.size());
    }
}

void BM_PlainPhpLoad(benchmark::State& state, Shape shape)
{
    const std::string text = WritePlain(ParseBare(TextOf(shape)));
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(PlainReader(text).Read().size());
    }
}

void BM_PhpSave(benchmark::State& state, Shape shape)
{
    const IniFile& ini = DocumentOf(shape);
    settings::common::GroupNameMatcher all;
    all.AddNameOrPattern("*");
    for (auto _ : state)
    {
        std::ostringstream out;
        PhpArraySettingsSerializer().OnSerialize(ini, all, out);
        benchmark::DoNotOptimize(std::move(out).str().size());
    }
}

void BM_PlainPhpSave(benchmark::State& state, Shape shape)
{
    const BareMap map = ParseBare(TextOf(shape));
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(WritePlain(map).size());
    }
}

}  // namespace

BENCHMARK_CAPTURE(BM_PhpLoad, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_PlainPhpLoad, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_PhpSave, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_PlainPhpSave, device, Device)->Setup(CleanHeap);

}  // namespace korlo::benchmarks
