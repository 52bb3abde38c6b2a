#include "korlo/core/Logger.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "korlo/osa/CrashSafeFile.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/ThreadAnnotations.h"

namespace korlo::core
{
namespace
{

/// Where stanzas are written to.
///
/// Thread safety: all methods, from any thread.
class LogRotateFolder
{
public:
    /// The one of this process. Never destroyed, as loggers are not.
    static LogRotateFolder& Instance()
    {
        static LogRotateFolder& folder = *new LogRotateFolder;
        return folder;
    }

    void Set(const std::string& path)
    {
        const osa::MutexAutoLock lock(&_mutex);
        _path = path;
    }

    std::string Get()
    {
        const osa::MutexAutoLock lock(&_mutex);
        return _path;
    }

private:
    osa::Mutex _mutex;
    std::string _path KORLO_GUARDED_BY(_mutex) = "/etc/logrotate.d";
};

bool IsPlain(char character)
{
    return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
           (character >= 'a' && character <= 'z') || character == '-';
}

/// A name for the group's stanza that no other group has, and no other program: "korlo-Log_2FMain".
std::string StanzaNameOf(const std::string& group)
{
    constexpr const char* digits = "0123456789ABCDEF";
    std::string name = "korlo-";
    for (const char character : group)
    {
        if (IsPlain(character))
        {
            name += character;
            continue;
        }
        const auto byte = static_cast<unsigned char>(character);
        name += {'_', digits[byte >> 4], digits[byte & 15]};
    }
    return name;
}

/// Whether the path, in double quotes, means to logrotate this one file: quotes and backslashes end or change the name,
/// wildcards stand for other files, braces open a stanza.
bool CanBeQuoted(const std::string& file)
{
    const auto isTrap = [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte < 0x20 || byte == 0x7f || std::string_view("\"\\*?[]{}").find(character) != std::string_view::npos;
    };
    return file.starts_with('/') && std::none_of(file.begin(), file.end(), isTrap);
}

/// The file is truncated in place, because the loggers keep it open and append to it.
std::string MakeStanza(const std::string& file)
{
    return "# Written by the program that logs to this file; changes are lost.\n"
           "\"" +
           file +
           "\" {\n"
           "    weekly\n"
           "    maxsize 1M\n"
           "    rotate 4\n"
           "    compress\n"
           "    copytruncate\n"
           "    missingok\n"
           "    notifempty\n"
           "}\n";
}

/// False when the file is missing or cannot be read: then it has to be written anyway.
bool Holds(const osa::CrashSafeFile& file, const std::string& content)
{
    try
    {
        return file.Read() == content;
    }
    catch (const osa::Exception&)
    {
        return false;
    }
}

}  // namespace

void Logger::SetLogRotateFolder(const std::string& folder)
{
    LogRotateFolder::Instance().Set(folder);
}

void Logger::ModifyLogRotateConf(const std::string& file, const std::string& group)
{
    if (file.empty())
    {
        return;
    }
    const Logger& logger = *GetLogger("Logger");
    if (!CanBeQuoted(file))
    {
        logger.Warning("Failed to set up log rotation of '%s': Not an absolute path that logrotate can be given",
                       file.c_str());
        return;
    }
    osa::CrashSafeFile stanzaFile(LogRotateFolder::Instance().Get() + '/' + StanzaNameOf(group));
    const std::string stanza = MakeStanza(file);
    if (Holds(stanzaFile, stanza))
    {
        return;
    }
    try
    {
        stanzaFile.Replace(stanza);
    }
    catch (const osa::Exception& exception)
    {
        logger.Warning("Failed to set up log rotation of '%s': %s", file.c_str(), exception.what());
    }
}

}  // namespace korlo::core
