// Runs the benchmarks and says how they stand to what docs/performance.md promises.

#include "support/ChildProcess.h"
#include "support/GoalReporter.h"

namespace
{

using korlo::benchmarks::Goal;

/// What is promised depends on whether client and server share a core.
double OnCores(double one, double two)
{
    return korlo::benchmarks::CoresOfRun() == 1 ? one : two;
}

const std::vector<Goal> Goals = {
    {"load device, of GKeyFile's time", "BM_Load/device", "BM_GKeyFileLoad/device", 1 / 5.0},
    {"load large, of GKeyFile's time", "BM_Load/large", "BM_GKeyFileLoad/large", 1 / 2.5},
    {"load device, of SimpleIni's time", "BM_Load/device", "BM_SimpleIniLoad/device", 1 / 3.0},
    {"load large, of SimpleIni's time", "BM_Load/large", "BM_SimpleIniLoad/large", 1 / 3.0},
    {"save device, of GKeyFile's time", "BM_Save/device", "BM_GKeyFileSave/device", 1 / 3.0},
    {"save large, of GKeyFile's time", "BM_Save/large", "BM_GKeyFileSave/large", 1 / 3.0},
    {"save device, of SimpleIni's time", "BM_Save/device", "BM_SimpleIniSave/device", 1 / 5.0},
    {"save large, of SimpleIni's time", "BM_Save/large", "BM_SimpleIniSave/large", 1 / 5.0},
    {"load device in the PHP form, of a plain reader's time", "BM_PhpLoad/device", "BM_PlainPhpLoad/device", 1 / 0.5},
    {"save device in the PHP form, of a plain writer's time", "BM_PhpSave/device", "BM_PlainPhpSave/device", 1 / 0.5},
    {"look-up in device, of the bare map's time", "BM_Lookup/device", "BM_BareLookup/device", 1.0},
    {"look-up in large, of the bare map's time", "BM_Lookup/large", "BM_BareLookup/large", 1.0},
    {"look-up in device, of GKeyFile's time", "BM_Lookup/device", "BM_GKeyFileLookup/device", 1.3},
    {"heap per key of device, of the bare map's", "BM_Heap/device#heap_per_key", "BM_BareHeap/device#heap_per_key",
     0.75},
    {"heap per key of large, of the bare map's", "BM_Heap/large#heap_per_key", "BM_BareHeap/large#heap_per_key", 0.75},
    {"copy of device, of the bare map's time", "BM_Copy/device", "BM_BareCopy/device", 0.75},
    {"copy of large, of the bare map's time", "BM_Copy/large", "BM_BareCopy/large", 0.75},
    {"load of 200 000 shuffled keys, of the time of 20 000", "BM_LoadOneGroup/200000", "BM_LoadOneGroup/20000", 25},
    {"merge of 200 000 keys, of the time of 20 000", "BM_MergeOneGroup/200000", "BM_MergeOneGroup/20000", 25},
    {"comparison of 200 000 keys, of the time of 20 000", "BM_CompareOneGroup/200000", "BM_CompareOneGroup/20000", 25},
    {"copy of 200 000 keys, of the time of 20 000", "BM_CopyOneGroup/200000", "BM_CopyOneGroup/20000", 25},
    {"get in 200 000 groups, of the time in 2000", "BM_StoreGet/200000", "BM_StoreGet/2000", 1.3},
    {"merge in 200 000 groups, of the time in 2000", "BM_StoreMerge/200000", "BM_StoreMerge/2000", 1.3},
    {"test-and-merge in 200 000 groups, of the time in 2000", "BM_StoreTestAndMerge/200000",
     "BM_StoreTestAndMerge/2000", 1.3},
    {"notification in 200 000 groups, of the time in 2000", "BM_StoreNotification/200000", "BM_StoreNotification/2000",
     1.3},
    {"Network/* in 200 000 groups, of the time in 2000", "BM_SelectByPrefix/200000", "BM_SelectByPrefix/2000", 2.0},
    {"get of a group by the local client, of GKeyFile's walk", "BM_LocalGet", "BM_GKeyFileWalk", 1 / 1.5},
    {"merge of a value by the local client, of bare maps' time", "BM_LocalMerge", "BM_BareMerge", 1 / 0.75},
    {"test-and-merge of a value by the local client, of bare maps' time", "BM_LocalTestAndMerge", "BM_BareTestAndMerge",
     1 / 0.65},
    {"local change with 100 subscribers elsewhere, of that with none", "BM_LocalChange/100", "BM_LocalChange/0", 2.0},
    {"store change with 100 subscribers elsewhere, of that with none", "BM_ChangeHeardByNone/100",
     "BM_ChangeHeardByNone/0", 2.0},
    {"update of 1000 variables, nothing new, in nanoseconds", "BM_UpdateNothingNew", nullptr, 100},
    {"a change and the update of 1000 variables, of reading them", "BM_ChangeAndUpdate/2000", "BM_ReadWatched", 1.5},
    {"the same in 200 000 groups, of the time in 2000", "BM_ChangeAndUpdate/200000", "BM_ChangeAndUpdate/2000", 1.3},
    {"get over TCP, single-threaded, of the floor's time", "BM_TcpGet/single", "BM_FloorGet", 1.35},
    {"get over TCP, single-threaded, of Redis's time", "BM_TcpGet/single", "BM_RedisGet", OnCores(0.80, 0.85)},
    {"get over TCP, multi-threaded, of the floor's time", "BM_TcpGet/multi", "BM_FloorHandOffGet", 1.35},
    {"get over TCP, multi-threaded, of a client's by hand", "BM_TcpGet/multi", "BM_HandWrittenGet",
     OnCores(1.12, 1.35)},
    {"get over TCP, multi-threaded, of Redis's time", "BM_TcpGet/multi", "BM_RedisGet", OnCores(1.05, 0.95)},
    {"get over a Unix-domain socket, single-threaded, of its time over TCP", "BM_UnixGet/single", "BM_TcpGet/single",
     OnCores(0.80, 0.90)},
    {"get over a Unix-domain socket, single-threaded, of Redis's time on its own", "BM_UnixGet/single",
     "BM_RedisUnixGet", OnCores(0.80, 0.85)},
    {"get over a Unix-domain socket, multi-threaded, of Redis's time on its own", "BM_UnixGet/multi", "BM_RedisUnixGet",
     OnCores(1.05, 0.95)},
    {"get under a hundred access rules, of the time without", "BM_GetUnderRules/100", "BM_TcpGet/single", 1.05},
    {"get within the process, single-threaded, of Redis's time", "BM_PipeGet/single", "BM_RedisGet", 0.8},
    {"get within the process, multi-threaded, of Redis's time", "BM_PipeGet/multi", "BM_RedisGet", OnCores(0.8, 0.7)},
    {"8 clients at once, of Redis's time", "BM_TcpGetAtOnce/8", "BM_RedisGetAtOnce/8", 1 / 0.9},
    {"32 clients at once, of Redis's time", "BM_TcpGetAtOnce/32", "BM_RedisGetAtOnce/32", 1 / 1.05},
    {"8 clients at once, server's processor time, of Redis's", "BM_TcpGetAtOnce/8#server_cpu_us",
     "BM_RedisGetAtOnce/8#server_cpu_us", 1.0},
    {"32 clients at once, server's processor time, of Redis's", "BM_TcpGetAtOnce/32#server_cpu_us",
     "BM_RedisGetAtOnce/32#server_cpu_us", 1.0},
    {"change to callback, of Redis's time", "BM_ChangeToCallback", "BM_RedisPublishToSubscriber", 1.0},
    {"change to the last of 500 subscribers, of Redis's time", "BM_FanOut/500", "BM_RedisFanOut/500", 1.15},
    {"change to the last of 10 threads, of Redis's time", "BM_ChangeToCallbacks/10", "BM_RedisPublishToThreads/10",
     1.0},
    {"change to the last of 100 threads, of Redis's time", "BM_ChangeToCallbacks/100", "BM_RedisPublishToThreads/100",
     1.0},
    {"change to the last of 500 threads, of Redis's time", "BM_ChangeToCallbacks/500", "BM_RedisPublishToThreads/500",
     1.0},
    {"burst to 100 subscribers, of Redis's time", "BM_FanOutBurst/100", "BM_RedisFanOutBurst/100", 2.0},
    {"test-and-merge, one client, of Redis's time", "BM_Increment/single", "BM_RedisIncrement", 1.0},
    {"test-and-merge, one multi-threaded client, of Redis's time", "BM_Increment/multi", "BM_RedisIncrement", 1.15},
    {"test-and-merge, eight clients, of Redis's time", "BM_ContendedIncrement", "BM_RedisContendedIncrement",
     OnCores(1 / 0.95, 1 / 0.9)},
    {"a hundred merges, a call each, of the time of pipelined Redis", "BM_MergeUnpersisted", "BM_RedisHset", 1 / 0.5},
    {"a hundred merges in one write, of the time of pipelined Redis", "BM_PlainMerge", "BM_RedisHset", 1 / 1.5},
    {"change on the disk, of a bare replacement's time", "BM_ChangeOnDisk/replace", "BM_BareReplacement", 1 / 0.85},
    {"change on the disk by appending, of a bare append's time", "BM_ChangeOnDisk/append", "BM_BareAppend", 1.6},
    {"change on the disk by appending, of Redis's time", "BM_ChangeOnDisk/append", "BM_RedisChangeOnDisk", 1.3},
    {"merge with delayed saves, of one that does not persist", "BM_MergeDelayed", "BM_MergeUnpersisted", 1 / 0.85},
    {"merge that is entered in the journal, of one that is not", "BM_MergeWithJournal", "BM_MergeWithoutJournal", 1.05},
    {"p99 of a get while a slow disk saves, of that with a quick one", "BM_GetWhileSaving/slow_disk#p99_us",
     "BM_GetWhileSaving/quick_disk#p99_us", 1.25},
    {"idle server, KiB resident", "BM_ServerMemory/1000#idle_kib", nullptr, 4096},
    {"each of 1000 idle clients, KiB resident", "BM_ServerMemory/1000#client_kib", nullptr, 14},
    {"what a hundred access rules add to each, KiB", "BM_ServerMemory/1000#rules_kib", nullptr, 1},
};

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
    {
        return 1;
    }
    korlo::benchmarks::GoalReporter reporter(Goals);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
