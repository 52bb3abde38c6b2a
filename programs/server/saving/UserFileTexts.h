#pragma once
// The user file and its log, for who only looks.

#include <string>
#include <vector>

namespace korlo::daemon
{

/// What lies on the disk at one moment, while a server may be at work on it.
///
/// Thread safety: none of its own; the owner guards it.
struct UserFileTexts
{
    /// @throws osa::Exception naming the path and the reason when the user file or its log cannot be read.
    static UserFileTexts Read(const std::string& path);

    /// What is wrong with the log, "FILE:LINE: message" each; a cut one is no mistake.
    /// @throws osa::Exception as Read.
    std::vector<std::string> FindLogMistakes() const;

    std::string content;
    std::string logPath;
    std::string log;       ///< empty where there is none
    bool belongs = false;  ///< the log does to the content
};

}  // namespace korlo::daemon
