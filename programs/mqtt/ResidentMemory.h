#pragma once
// How much of the device's memory the process keeps while there is nothing to do.

namespace korlo::settings::mqtt::ResidentMemory
{

/// Gives back to the system what the process has but will hardly use again:
///
/// - freed memory. By itself the heap shrinks at its end alone, and what a read of all settings took lies in between of
///   what stays;
/// - pages of the program's file and of its libraries that nobody has written to. Most were needed to link them and to
///   set them up, above all those of the library for TLS. One that is needed again comes from its file, as it did the
///   first time.
///
/// Takes a fraction of a millisecond; so does, once, what runs next. A debugger's breakpoints are forgotten, too: they
/// are in pages that only seem to be unwritten.
///
/// Thread safety: from any thread.
void GiveBack();

}  // namespace korlo::settings::mqtt::ResidentMemory
