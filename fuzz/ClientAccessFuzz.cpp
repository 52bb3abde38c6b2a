// Two stores that differ only in groups that a client may not read, and that client's connections to each: whatever it
// asks and whatever others change, both answer it alike, byte for byte.
//
// An input is a script; tests/support/TwinStores.h says how to write one.

#include <cstddef>
#include <cstdint>

#include "Input.h"
#include "Require.h"
#include "korlo/core/Logger.h"
#include "support/TwinStores.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    korlo::core::Logger::ClearAppenders();  // most of the inputs make no sense, and say so
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const korlo::settings::server::TwinOutcome outcome(korlo::fuzz::Input(data, size).TakeRest());
    korlo::fuzz::Require(outcome.leftSent == outcome.rightSent, "a client cannot tell what it may not read");
    return 0;
}
