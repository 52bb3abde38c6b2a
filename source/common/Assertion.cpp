#include "common/Assertion.h"

#include <cstdio>
#include <cstdlib>

namespace korlo::settings::common
{

void Assert(bool condition, const char* text, const char* source)
{
    if (!condition)
    {
        std::fprintf(stderr, "%s: Assertion \"%s\" failed\n", source, text);
        std::abort();
    }
}

}  // namespace korlo::settings::common
