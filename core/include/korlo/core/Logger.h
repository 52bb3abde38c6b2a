#pragma once
// Named log channels, and where their messages go.

#include <atomic>
#include <cstdarg>
#include <memory>
#include <string>

namespace korlo::core
{

class IniFile;
class Logger;
class LoggerRegistry;

/// The severities of a message, numbered as syslog numbers them; a trace is below the last one of syslog.
enum LogLevel
{
    LogLevelError = 3,        ///< An operation was lost.
    LogLevelWarning = 4,      ///< Something went wrong and was recovered from.
    LogLevelInformation = 6,  ///< The state of the program changed.
    LogLevelTrace = 8         ///< What happens for each message or call.
};

/// A place that log messages go to.
///
/// Thread safety: Append is called from any thread, by one thread at a time.
class ILogAppender
{
public:
    virtual ~ILogAppender() = default;

    /// Takes one message. May log itself (the other appenders get it, this one does not) and may change the appenders.
    /// A standard exception that leaves it is dropped. Must not wait for a lock that anybody holds while logging.
    /// @param message as formatted, with its control characters: an appender that writes lines escapes them first.
    virtual void Append(const Logger& logger, LogLevel level, const std::string& message) = 0;
};

/// A named log channel. Get it once, keep the pointer: loggers live as long as the process.
///
///     Logger* pLogger = Logger::GetLogger("Printer");
///     pLogger->Warning("Tray %u is almost empty", tray);
///
/// A message is formatted, and handed to every appender, only while the logger's threshold is at least the message's
/// level; below it, a call costs one atomic read. Until something else is configured the threshold is LogLevelWarning,
/// and the one appender writes lines to standard error:
///
///     2026-01-31T23:59:59.123Z printd[412] Warning Printer: Tray 2 is almost empty
///
/// Each line leaves in one system call, so that lines of several threads and processes never mix; control characters in
/// it are written as `\n`, `\r`, `\t` or `\xHH`, so that no value can pass for a line of its own. Logging keeps
/// `errno`, and drops a message that there is no memory for.
///
/// Thread safety: all methods, from any thread.
class Logger
{
public:
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    /// The logger of that name, made at the first call with it. Never null, never freed.
    static Logger* GetLogger(const std::string& name);

    /// Adds an appender beside those that are there, the one to standard error included. Null adds nothing.
    static void AddAppender(std::shared_ptr<ILogAppender> pAppender);

    /// Removes every appender, the one to standard error included; messages are dropped until there is one again.
    /// A message that another thread is logging is delivered first.
    static void ClearAppenders();

    /// Replaces the built-in appenders (not those of AddAppender) and the thresholds of all loggers, present and
    /// future, by what the keys of `group` say:
    ///
    /// | key          | default | meaning                                                                          |
    /// |--------------|---------|----------------------------------------------------------------------------------|
    /// | "using_defs" | false   | true: ignore the other keys, go back to warnings and errors on standard error     |
    /// | "log.level"  | 2       | 0 nothing, 1 errors, 2 warnings too, 3 information too, 4 and above traces too    |
    /// | "log.syslog" | false   | true: to the system log, under the program's name                                |
    /// | "log.stdout" | false   | true: lines to standard output                                                   |
    /// | "log.file"   | none    | path of a file that lines are appended to, made if missing                       |
    ///
    /// Without any of the three outputs, messages go to standard error: only level 0 silences the process. A group that
    /// is missing therefore means what "using_defs" does. A file that cannot be opened is not an output; it costs a
    /// warning, at any level but 0. Every message reaches either the old set of appenders or the new one, never both.
    /// @throws nothing but std::bad_alloc.
    static void ConfigureLogging(const IniFile& settings, const std::string& group);

    /// Sets the thresholds of all loggers, present and future, as "log.level" does; the appenders stay.
    static void SetLevel(int level);

    /// Writes a logrotate stanza for the log file to "korlo-GROUP" in the log rotate folder, with every byte of the
    /// group's name that is no letter, digit or '-' written as `_HH`. The stanza is replaced as a whole, and only when
    /// it would change. A failure (a folder that may not be written, a path that is not absolute or that logrotate
    /// would take for something else) costs a warning, nothing more. An empty path does nothing.
    static void ModifyLogRotateConf(const std::string& file, const std::string& group);

    /// Where ModifyLogRotateConf writes from now on; "/etc/logrotate.d" at first.
    static void SetLogRotateFolder(const std::string& folder);

    /// As it was given to the constructor.
    const std::string& GetName() const { return _name; }

    /// The highest LogLevel that is emitted; 0 for none.
    int GetThreshold() const { return _threshold.load(std::memory_order_relaxed); }

    /// Sets the threshold of this logger alone, until the next ConfigureLogging.
    /// @param threshold the highest LogLevel that is still emitted; 0 for none.
    void SetThreshold(int threshold) { _threshold.store(threshold, std::memory_order_relaxed); }

    /// Formats in the manner of printf and hands the message to every appender, whatever the threshold.
    __attribute__((format(printf, 3, 0))) void LogMessageV(LogLevel level, const char* format, va_list args) const;

    /// Formats in the manner of printf and emits the message if the threshold allows it: an operation was lost.
    __attribute__((format(printf, 2, 3))) void Error(const char* format, ...) const
    {
        if (GetThreshold() >= LogLevelError)
        {
            va_list args;
            va_start(args, format);
            LogMessageV(LogLevelError, format, args);
            va_end(args);
        }
    }

    /// The same: something went wrong, and was put right.
    __attribute__((format(printf, 2, 3))) void Warning(const char* format, ...) const
    {
        if (GetThreshold() >= LogLevelWarning)
        {
            va_list args;
            va_start(args, format);
            LogMessageV(LogLevelWarning, format, args);
            va_end(args);
        }
    }

    /// The same: a state has changed.
    __attribute__((format(printf, 2, 3))) void Information(const char* format, ...) const
    {
        if (GetThreshold() >= LogLevelInformation)
        {
            va_list args;
            va_start(args, format);
            LogMessageV(LogLevelInformation, format, args);
            va_end(args);
        }
    }

    /// The same: for whoever looks for a fault.
    __attribute__((format(printf, 2, 3))) void Trace(const char* format, ...) const
    {
        if (GetThreshold() >= LogLevelTrace)
        {
            va_list args;
            va_start(args, format);
            LogMessageV(LogLevelTrace, format, args);
            va_end(args);
        }
    }

private:
    friend class LoggerRegistry;

    Logger(const std::string& name, int threshold) : _name(name), _threshold(threshold) {}

    const std::string _name;
    std::atomic<int> _threshold;
};

}  // namespace korlo::core
