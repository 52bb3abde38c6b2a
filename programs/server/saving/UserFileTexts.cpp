#include "saving/UserFileTexts.h"

#include "korlo/osa/CrashSafeFile.h"
#include "saving/ChangeLog.h"
#include "saving/UserFile.h"

namespace korlo::daemon
{

/// A server may fold between the two files. Then the log is another one the next time.
UserFileTexts UserFileTexts::Read(const std::string& path)
{
    constexpr int mostAttempts = 4;
    const osa::CrashSafeFile file(path);
    UserFileTexts texts;
    texts.logPath = UserFile::LogPathOf(file);
    const osa::CrashSafeFile log(texts.logPath);
    for (int attempt = 0; attempt < mostAttempts && !texts.belongs; ++attempt)
    {
        texts.content = file.Read();
        texts.log = log.Exists() ? log.Read() : std::string();
        texts.belongs = texts.log.empty() || ChangeLog(texts.log).GetContent() == ContentMark::Of(texts.content);
    }
    texts.belongs = texts.belongs && !texts.log.empty();
    return texts;
}

std::vector<std::string> UserFileTexts::FindLogMistakes() const
{
    const ChangeLog read(log);
    if (!log.empty() && read.GetContent() && !belongs)
    {
        return {logPath + ":1: it belongs to another content than the user file has: what was changed in it does not "
                          "count"};
    }
    if (read.GetEnd() == ChangeLog::Damaged)
    {
        return {logPath + ':' + std::to_string(read.GetEndLine()) +
                ": damaged from here on: what was changed behind it does not count"};
    }
    return {};
}

}  // namespace korlo::daemon
