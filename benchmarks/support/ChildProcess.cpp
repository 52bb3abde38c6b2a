#include "support/ChildProcess.h"

#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/ServiceDirectory.h"
#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

constexpr unsigned int ClientCore = 0;

void Check(bool done, const char* what)
{
    if (!done)
    {
        throw osa::Exception("%s failed", what);
    }
}

void ServeFloor(int listener, std::size_t requestBytes, std::size_t responseBytes)
{
    const std::string response(responseBytes, 'x');
    for (;;)
    {
        const int client = accept(listener, nullptr, nullptr);
        std::thread([client, requestBytes, &response] {
            const int on = 1;
            setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            std::array<char, 65536> buffer;
            std::size_t waiting = 0;
            for (;;)
            {
                const ssize_t got = recv(client, buffer.data(), buffer.size(), 0);
                if (got <= 0)
                {
                    close(client);
                    return;
                }
                for (waiting += static_cast<std::size_t>(got); waiting >= requestBytes; waiting -= requestBytes)
                {
                    SendAll(client, response);
                }
            }
        }).detach();
    }
}

std::string MakeFolder(const std::string& defaults)
{
    std::string folder = "/var/tmp/korlo-bench-XXXXXX";
    Check(mkdtemp(folder.data()) != nullptr, "mkdtemp");
    std::ofstream(folder + "/defaults.ini") << defaults;
    return folder;
}

std::vector<std::string> ServerCommand(const std::string& folder, const std::vector<std::string>& options,
                                       const std::string& preloaded)
{
    std::vector<std::string> command = {"env",
                                        "LD_PRELOAD=" + preloaded,
                                        KORLO_SETTINGS_SERVER,
                                        "--listen",
                                        "127.0.0.1:0",
                                        "--defaults",
                                        folder + "/defaults.ini",
                                        "--user",
                                        folder + "/user.ini"};
    for (std::string option : options)
    {
        const std::size_t place = option.find('%');
        command.push_back(place == std::string::npos ? option : option.replace(place, 1, folder));
    }
    return command;
}

std::uint16_t FreePort()
{
    std::uint16_t port = 0;
    close(Listen(port));
    return port;
}

void WaitUntilListening(std::uint16_t port)
{
    for (int attempt = 0; attempt < 1000; ++attempt)
    {
        try
        {
            close(ConnectTo(port));
            return;
        }
        catch (const osa::Exception&)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    throw osa::Exception("No server on port %u", static_cast<unsigned int>(port));
}

}  // namespace

void PinToCore(unsigned int core)
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    sched_setaffinity(0, sizeof(cores), &cores);
}

unsigned int CoresOfRun()
{
    const char* text = std::getenv("KORLO_BENCH_CORES");
    return text != nullptr && *text == '1' ? 1 : 2;
}

ChildProcess::ChildProcess(const std::function<void()>& body)
{
    Start(body, -1);
}

ChildProcess::ChildProcess(const std::vector<std::string>& arguments)
{
    std::array<int, 2> ends{};
    Check(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe2");
    Start(
        [&arguments] {
            std::vector<char*> words;
            for (const std::string& argument : arguments)
            {
                words.push_back(const_cast<char*>(argument.c_str()));
            }
            words.push_back(nullptr);
            execvp(words[0], words.data());
            std::perror(words[0]);
        },
        ends[1]);
    close(ends[1]);
    _output = ends[0];
}

void ChildProcess::Start(const std::function<void()>& body, int output)
{
    _pid = fork();
    Check(_pid >= 0, "fork");
    if (_pid == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        PinToCore(ClientCore + CoresOfRun() - 1);
        if (output >= 0)
        {
            dup2(output, STDOUT_FILENO);
        }
        body();
        _exit(1);
    }
}

ChildProcess::~ChildProcess()
{
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
    if (_output >= 0)
    {
        close(_output);
    }
}

std::string ChildProcess::TakeLine()
{
    std::string line;
    char c = '\0';
    while (read(_output, &c, 1) == 1 && c != '\n')
    {
        line += c;
    }
    return line;
}

double ChildProcess::CpuSeconds() const
{
    clockid_t clock = 0;
    timespec time{};
    Check(clock_getcpuclockid(_pid, &clock) == 0 && clock_gettime(clock, &time) == 0, "clock_gettime");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double ChildProcess::ResidentKiB() const
{
    std::ifstream status("/proc/" + std::to_string(_pid) + "/status");
    for (std::string word; status >> word;)
    {
        if (word == "VmRSS:")
        {
            double kib = 0;
            status >> kib;
            return kib;
        }
    }
    return 0;
}

FloorServer::FloorServer(std::size_t requestBytes, std::size_t responseBytes)
    : _listener(Listen(_port)),
      _process([this, requestBytes, responseBytes] { ServeFloor(_listener, requestBytes, responseBytes); })
{
    close(_listener);
}

KorloServer::KorloServer(const std::vector<std::string>& options) : KorloServer(options, TextOf(Device))
{
}

KorloServer::KorloServer(const std::vector<std::string>& options, const std::string& defaults,
                         const std::string& preloaded)
    : _folder(MakeFolder(defaults)),
      _process(ServerCommand(_folder, options, preloaded))
{
    const std::string line = _process.TakeLine();
    const std::size_t colon = line.rfind(':');
    Check(colon != std::string::npos, "Starting the settings server");
    _port = static_cast<std::uint16_t>(std::stoi(line.substr(colon + 1)));
}

KorloServer::~KorloServer()
{
    std::error_code ignored;
    std::filesystem::remove_all(_folder, ignored);
}

void KorloServer::Register() const
{
    osa::ServiceDirectory::Register("korlo-settings-server", "127.0.0.1", _port);
}

void KorloServer::RegisterSocket() const
{
    osa::ServiceDirectory::Register("korlo-settings-server", "unix:" + _folder + "/socket", 0);
}

RedisServer::RedisServer(Persistence persistence)
    : _port(FreePort()),
      _socketPath("/tmp/korlo-bench-redis-" + std::to_string(_port)),
      _folder(MakeFolder("")),
      _process(std::vector<std::string>{"redis-server", "--port", std::to_string(_port), "--bind", "127.0.0.1",
                                        "--unixsocket", _socketPath, "--save", "", "--appendonly",
                                        persistence == EachChange ? "yes" : "no", "--appendfsync", "always",
                                        "--logfile", "/dev/null", "--dir", _folder})
{
    WaitUntilListening(_port);
    const int client = ConnectTo(_port);
    SendAll(client, "PING\r\n");
    ReceiveExactly(client, std::string("+PONG\r\n").size());  // it answers once its socket is open, too
    close(client);
}

RedisServer::~RedisServer()
{
    std::error_code ignored;
    std::filesystem::remove(_socketPath, ignored);
    std::filesystem::remove_all(_folder, ignored);
}

int Listen(std::uint16_t& port)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    Check(bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(listener, SOMAXCONN) == 0 &&
              getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0,
          "Listening");
    port = ntohs(address.sin_port);
    return listener;
}

int ConnectTo(std::uint16_t port)
{
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
    {
        close(client);
        throw osa::Exception("Failed to connect to port %u", static_cast<unsigned int>(port));
    }
    const int on = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return client;
}

void SendAll(int socket, const std::string& bytes)
{
    for (std::size_t sent = 0; sent < bytes.size();)
    {
        const ssize_t count = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
        {
            return;
        }
        sent += static_cast<std::size_t>(count);
    }
}

void ReceiveExactly(int socket, std::size_t bytes)
{
    std::array<char, 65536> buffer;
    while (bytes > 0)
    {
        const ssize_t got = recv(socket, buffer.data(), std::min(buffer.size(), bytes), 0);
        Check(got > 0, "recv");
        bytes -= static_cast<std::size_t>(got);
    }
}

}  // namespace korlo::benchmarks
