// Runs a program with the system calls that a systemd unit allows it: a call beyond them kills it, so that it is seen.
//
//   unit_sandbox UNIT PROGRAM [ARGUMENT]...

#include <array>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

using Names = std::set<std::string>;

/// Every system call of the processor that this was compiled for, as its headers name them.
constexpr std::pair<const char*, unsigned int> KnownCalls[] = {
#include "SystemCalls.inc"
};

/// What systemd means by each name that begins with '@': calls, and further such names.
std::map<std::string, Names> ReadSets()
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen("systemd-analyze syscall-filter 2>/dev/null", "r"),
                                                               pclose);
    std::map<std::string, Names> sets;
    std::string set;
    for (std::array<char, 256> line; std::fgets(line.data(), static_cast<int>(line.size()), pipe.get()) != nullptr;)
    {
        std::istringstream words(line.data());
        std::string word;
        words >> word;
        if (!std::isspace(static_cast<unsigned char>(line.front())))
        {
            set = word;  // '#' for the calls that belong to none
        }
        else if (!word.empty() && word != "#")
        {
            sets[set].insert(word);
        }
    }
    return sets;
}

void AddCalls(const std::string& name, const std::map<std::string, Names>& sets, Names& calls)
{
    if (name.front() != '@')
    {
        calls.insert(name);
        return;
    }
    const auto set = sets.find(name);
    if (set == sets.end())
    {
        throw std::runtime_error("systemd-analyze tells nothing of '" + name + '\'');
    }
    for (const std::string& member : set->second)
    {
        AddCalls(member, sets, calls);
    }
}

/// What is left when each line `SystemCallFilter=` has added its calls or, after a '~', taken them away.
Names AllowedCalls(const std::string& unit)
{
    const std::map<std::string, Names> sets = ReadSets();
    std::ifstream file(unit);
    const std::string key = "SystemCallFilter=";
    Names allowed;
    for (std::string line; std::getline(file, line);)
    {
        if (!line.starts_with(key))
        {
            continue;
        }
        const bool takes = line[key.size()] == '~';
        std::istringstream words(line.substr(key.size() + (takes ? 1 : 0)));
        Names calls;
        for (std::string name; words >> name;)
        {
            AddCalls(name, sets, calls);
        }
        for (const std::string& call : calls)
        {
            if (takes)
            {
                allowed.erase(call);
            }
            else
            {
                allowed.insert(call);
            }
        }
    }
    if (allowed.empty())
    {
        throw std::runtime_error('\'' + unit + "' allows no system call");
    }
    return allowed;
}

/// The numbers of those that this processor has.
std::vector<unsigned int> NumbersOf(const Names& calls)
{
    std::vector<unsigned int> numbers;
    for (const auto& [name, number] : KnownCalls)
    {
        if (calls.contains(name))
        {
            numbers.push_back(number);
        }
    }
    return numbers;
}

void AllowOnly(const Names& calls)
{
    std::vector<sock_filter> rules{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const unsigned int number : NumbersOf(calls))
    {
        rules.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1));
        rules.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    }
    rules.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS));
    const sock_fprog program{static_cast<unsigned short>(rules.size()), rules.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
    {
        throw std::runtime_error(std::string("Failed to forbid system calls: ") + std::strerror(errno));
    }
}

}  // namespace

int main(int argc, char** argv)
{
    constexpr int failed = 127;
    try
    {
        if (argc < 3)
        {
            throw std::runtime_error("unit_sandbox UNIT PROGRAM [ARGUMENT]...");
        }
        AllowOnly(AllowedCalls(argv[1]));
        execvp(argv[2], argv + 2);
        throw std::runtime_error(std::string("Failed to start ") + argv[2] + ": " + std::strerror(errno));
    }
    catch (const std::exception& exception)
    {
        std::cerr << exception.what() << '\n';
        return failed;
    }
}
