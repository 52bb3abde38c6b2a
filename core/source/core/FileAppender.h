#pragma once
// Log messages as lines at the end of a file.

#include "korlo/core/Logger.h"

namespace korlo::core
{

/// Appends each message as one line to a file that it keeps open. Several processes may share the file, and it may be
/// truncated meanwhile. A line that the file does not take (the disk is full) goes to standard error.
///
/// Thread safety: as ILogAppender.
class FileAppender : public ILogAppender
{
public:
    /// Opens the file, making it if need be, readable by its owner and group. Throws osa::Exception, naming the path
    /// and the system's reason.
    explicit FileAppender(const std::string& path);
    FileAppender(const FileAppender&) = delete;
    FileAppender& operator=(const FileAppender&) = delete;
    ~FileAppender() override;

    void Append(const Logger& logger, LogLevel level, const std::string& message) override;

private:
    const int _file;
    bool _isCutOff = false;  // the file ends in the middle of a line
};

}  // namespace korlo::core
