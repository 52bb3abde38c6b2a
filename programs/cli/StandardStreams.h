#pragma once
// Standard input, output and error, by system calls: what is written is out when the call returns, and errors show.

#include <string>
#include <string_view>

namespace korlo::settings::cli
{

/// Occupies whichever of the three standard descriptors the caller left closed, so that no file that is opened later
/// gets the number and takes results or messages. Using one that was closed remains an error.
void HoldStandardDescriptors();

/// Writes a result to standard output.
/// @throws OutputClosed when nobody reads any more (SIGPIPE must be ignored); Failure for another reason.
void WriteOutput(std::string_view text);

/// The text with its control characters as `\xHH`: no name in it can drive a terminal or pass for another line.
std::string Escaped(std::string_view text);

/// Writes "korlo-settings: MESSAGE" as one line to standard error, escaped. There is nobody to tell of an error there.
void WriteMessage(std::string_view message);

/// Reads standard input to its end.
/// @throws Failure.
std::string ReadInput();

/// Reads what is there, at most a piece; waits if there is nothing. Empty at the end.
/// @throws Failure.
std::string ReadPieceOfInput();

}  // namespace korlo::settings::cli
