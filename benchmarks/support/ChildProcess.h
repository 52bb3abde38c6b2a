#pragma once
// The servers that clients are measured against, each in a process of its own.

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace korlo::benchmarks
{

/// Pins the calling thread, and what it starts from now on, to one core.
void PinToCore(unsigned int core);

/// How many cores the run uses for client and server together: KORLO_BENCH_CORES, 1 or 2.
unsigned int CoresOfRun();

/// A process that is ended with this object.
///
/// Thread safety: none of its own; the owner guards it.
class ChildProcess
{
public:
    /// Runs `body` in a copy of this process, on the server's core. Call it while this process has one thread.
    explicit ChildProcess(const std::function<void()>& body);

    /// Runs a program on the server's core; what it writes to standard output comes to TakeLine.
    explicit ChildProcess(const std::vector<std::string>& arguments);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    /// The next line of the program's standard output; waits for it.
    std::string TakeLine();

    /// Processor time that it has used so far, in seconds.
    double CpuSeconds() const;

    /// Resident memory now, in KiB.
    double ResidentKiB() const;

private:
    void Start(const std::function<void()>& body, int output);

    pid_t _pid = -1;
    int _output = -1;
};

/// Answers requests of one fixed size with responses of another, a thread for each connection: what no server can beat.
class FloorServer
{
public:
    FloorServer(std::size_t requestBytes, std::size_t responseBytes);
    std::uint16_t GetPort() const { return _port; }
    const ChildProcess& GetProcess() const { return _process; }

private:
    std::uint16_t _port = 0;
    int _listener;
    ChildProcess _process;
};

/// Our server over a folder of its own, which goes with it.
class KorloServer
{
public:
    /// @param options besides the files and the address; a `%` in one stands for the server's folder.
    /// @param defaults INI text of the default settings.
    /// @param preloaded a library that comes before those of the server, or empty.
    KorloServer(const std::vector<std::string>& options, const std::string& defaults,
                const std::string& preloaded = "");

    /// With the settings of a device.
    explicit KorloServer(const std::vector<std::string>& options);
    ~KorloServer();
    KorloServer(const KorloServer&) = delete;
    KorloServer& operator=(const KorloServer&) = delete;

    std::uint16_t GetPort() const { return _port; }
    const ChildProcess& GetProcess() const { return _process; }
    const std::string& GetFolder() const { return _folder; }

    /// Lets clients of this process find it.
    void Register() const;

    /// The same for a server that has the option `--listen unix:%/socket`, by that socket.
    void RegisterSocket() const;

private:
    std::string _folder;
    ChildProcess _process;
    std::uint16_t _port;
};

/// Redis without any persistence, or with a log in which each change is synced before it is answered.
class RedisServer
{
public:
    enum Persistence
    {
        None,
        EachChange
    };

    explicit RedisServer(Persistence persistence = None);
    ~RedisServer();
    RedisServer(const RedisServer&) = delete;
    RedisServer& operator=(const RedisServer&) = delete;

    std::uint16_t GetPort() const { return _port; }
    const std::string& GetSocketPath() const { return _socketPath; }
    const ChildProcess& GetProcess() const { return _process; }

private:
    std::uint16_t _port;
    std::string _socketPath;
    std::string _folder;
    ChildProcess _process;
};

/// A listening socket on a free port of the loopback address.
int Listen(std::uint16_t& port);

/// A connected socket without delay.
int ConnectTo(std::uint16_t port);

void SendAll(int socket, const std::string& bytes);
void ReceiveExactly(int socket, std::size_t bytes);

}  // namespace korlo::benchmarks
