#pragma once
// The settings protocol as one table: what a client sends, what it gets, and what the store then holds.

#include <algorithm>
#include <string>
#include <vector>

namespace korlo::settings
{

/// What every exchange starts from: the defaults of the store, which has no user layer yet.
inline constexpr const char* ExchangeDefaults = "[Audio]\n"
                                                "muted=no\n"
                                                "volume=3\n"
                                                "[Net/eth0]\n"
                                                "log.file=/var/log/net\n"
                                                "mode=dhcp\n"
                                                "[Net/wlan0]\n"
                                                "mode=off\n";

/// One request and its consequences.
struct Exchange
{
    const char* name;
    std::string request;
    std::string response;
    std::string user;      // the user layer afterwards
    std::string settings;  // all settings afterwards
};

inline const std::string Audio = "[Audio]\nmuted=no\nvolume=3\n";
inline const std::string Eth0 = "[Net/eth0]\nlog.file=/var/log/net\nmode=dhcp\n";
inline const std::string Wlan0 = "[Net/wlan0]\nmode=off\n";

inline const std::vector<Exchange> Exchanges = {
    {"get delimited", "get delimited\nAudio\n.\n", "data\n" + Audio + ".\n", "", ExchangeDefaults},
    {"get delimited of a pattern", "get delimited\nNet/*\n.\n", "data\n" + Eth0 + Wlan0 + ".\n", "", ExchangeDefaults},
    {"get delimited of names in any order", "get delimited\nNet/wlan0\nAudio\nAudio\n.\n",
     "data\n" + Audio + Wlan0 + ".\n", "", ExchangeDefaults},
    {"get delimited of nothing", "get delimited\n.\n", "data\n.\n", "", ExchangeDefaults},
    {"get delimited of an unknown group", "get delimited\nNobody\n.\n", "data\n.\n", "", ExchangeDefaults},
    {"get delimited of an empty name", "get delimited\n\n.\n", "data\n.\n", "", ExchangeDefaults},
    {"names are taken whole and untrimmed", "get delimited\n Audio\nAudio \nAudio\r\n.\n", "data\n.\n", "",
     ExchangeDefaults},
    {"full stops within names do not end the list", "get delimited\n..\n.Audio\nAudio.\n .\n.\r\nAudio\n.\n",
     "data\n" + Audio + ".\n", "", ExchangeDefaults},
    {"get without an option", "get\nAudio\n.\n", Audio, "", ExchangeDefaults},
    {"get without an option of nothing", "get\n.\n", "", "", ExchangeDefaults},
    {"get with another option", "get Delimited\nAudio\n.\n", Audio, "", ExchangeDefaults},
    {"get with a longer option", "get delimitedx\nAudio\n.\n", Audio, "", ExchangeDefaults},
    {"only the first option counts", "get x delimited\nAudio\n.\n", Audio, "", ExchangeDefaults},
    {"further options are ignored", "get delimited x\nAudio\n.\n", "data\n" + Audio + ".\n", "", ExchangeDefaults},
    {"blanks around words", " \t get \t delimited  \nAudio\n.\n", "data\n" + Audio + ".\n", "", ExchangeDefaults},

    {"merge", "merge\n[Audio]\nvolume=9\n.\n", "", "[Audio]\nvolume=9\n",
     "[Audio]\nmuted=no\nvolume=9\n" + Eth0 + Wlan0},
    {"merge nopersist", "merge nopersist\n[Audio]\nvolume=9\n.\n", "", "",
     "[Audio]\nmuted=no\nvolume=9\n" + Eth0 + Wlan0},
    {"merge with another option persists", "merge NOPERSIST\n[Audio]\nvolume=9\n.\n", "", "[Audio]\nvolume=9\n",
     "[Audio]\nmuted=no\nvolume=9\n" + Eth0 + Wlan0},
    {"merge with a longer option persists", "merge nopersistent\n[Audio]\nvolume=9\n.\n", "", "[Audio]\nvolume=9\n",
     "[Audio]\nmuted=no\nvolume=9\n" + Eth0 + Wlan0},
    {"merge of nothing", "merge\n.\n", "", "", ExchangeDefaults},
    {"merge of keys with full stops", "merge\n[Net/eth0]\nlog.file=.\n.\n", "", "[Net/eth0]\nlog.file=.\n",
     Audio + "[Net/eth0]\nlog.file=.\nmode=dhcp\n" + Wlan0},
    {"merge of bytes that text cannot carry", "merge\n[Audio]\nname=\"a\\nb\\n.\\n\"\n.\n", "",
     "[Audio]\nname=\"a\\nb\\n.\\n\"\n", "[Audio]\nmuted=no\nname=\"a\\nb\\n.\\n\"\nvolume=3\n" + Eth0 + Wlan0},

    {"test-and-merge that succeeds", "test-and-merge\n[Audio]\nvolume=3\n.\n[Audio]\nvolume=4\n.\n", "result\nok\n",
     "[Audio]\nvolume=4\n", "[Audio]\nmuted=no\nvolume=4\n" + Eth0 + Wlan0},
    {"test-and-merge that fails", "test-and-merge\n[Audio]\nvolume=2\n.\n[Audio]\nvolume=4\n.\n", "result\nfailure\n",
     "", ExchangeDefaults},
    {"test-and-merge that expects nothing", "test-and-merge\n.\n[Audio]\nvolume=4\n.\n", "result\nok\n",
     "[Audio]\nvolume=4\n", "[Audio]\nmuted=no\nvolume=4\n" + Eth0 + Wlan0},
    {"test-and-merge of nothing", "test-and-merge\n.\n.\n", "result\nok\n", "", ExchangeDefaults},

    {"overwrite", "overwrite\nAudio\n.\n[Audio]\nvolume=1\n.\n", "",
     "[Audio]\nvolume=1\n[KorloSettings/Data/DeletedGroups]\n1=Audio\n", "[Audio]\nvolume=1\n" + Eth0 + Wlan0},
    {"overwrite with nothing erases", "overwrite\nNet/*\n.\n.\n", "", "[KorloSettings/Data/DeletedGroups]\n1=Net/*\n",
     Audio},
    {"overwrite of no groups merges", "overwrite\n.\n[Audio]\nvolume=1\n.\n", "", "[Audio]\nvolume=1\n",
     "[Audio]\nmuted=no\nvolume=1\n" + Eth0 + Wlan0},

    {"restore", "merge\n[Audio]\nvolume=9\n.\nrestore\nAudio\n.\n", "", Audio, ExchangeDefaults},
    {"restore of a pattern", "merge\n[Net/wlan0]\nmode=on\n.\nrestore\nNet/w*\n.\n", "", Wlan0, ExchangeDefaults},
    {"restore of nothing", "restore\n.\n", "", "", ExchangeDefaults},

    {"dump", "merge\n[Audio]\nvolume=9\n.\ndump\n", "[Audio]\nvolume=9\n.\n", "[Audio]\nvolume=9\n",
     "[Audio]\nmuted=no\nvolume=9\n" + Eth0 + Wlan0},
    {"dump all", "dump all\n", ExchangeDefaults + std::string(".\n"), "", ExchangeDefaults},
    {"dump with another option", "dump ALL\ndump allx\n", ".\n.\n", "", ExchangeDefaults},

    {"info subscribed", "subscribe\nNet/*\nAudio\n.\ninfo subscribed\n",
     "Subscribed groups\n-----------------\nAudio\nNet/*\n\n", "", ExchangeDefaults},
    {"info subscribed without subscribers", "info subscribed\n", "Subscribed groups\n-----------------\n\n", "",
     ExchangeDefaults},
    {"info without its option", "info\ninfo Subscribed\ninfo subscribedx\ninfo x subscribed\n", "", "",
     ExchangeDefaults},
    {"subscribe to nothing", "subscribe\n.\ninfo subscribed\n", "Subscribed groups\n-----------------\n\n", "",
     ExchangeDefaults},
    {"subscribe twice", "subscribe\nAudio\n.\nsubscribe\nNet/eth0\n.\ninfo subscribed\n",
     "Subscribed groups\n-----------------\nAudio\nNet/eth0\n\n", "", ExchangeDefaults},

    {"a notification before the response", "subscribe\nAudio\n.\ntest-and-merge\n.\n[Audio]\nvolume=4\n.\n",
     "async change\nAudio\n.\n[Audio]\nmuted=no\nvolume=4\n.\nresult\nok\n", "[Audio]\nvolume=4\n",
     "[Audio]\nmuted=no\nvolume=4\n" + Eth0 + Wlan0},
    {"a notification of a merge", "subscribe\nNet/*\n.\nmerge\n[Net/wlan0]\nmode=on\n[Audio]\nvolume=4\n.\n",
     "async change\nNet/wlan0\n.\n[Net/wlan0]\nmode=on\n.\n", "[Audio]\nvolume=4\n[Net/wlan0]\nmode=on\n",
     "[Audio]\nmuted=no\nvolume=4\n" + Eth0 + "[Net/wlan0]\nmode=on\n"},
    {"a notification of erased groups", "subscribe\nNet/*\n.\noverwrite\nNet/*\n.\n.\n",
     "async change\nNet/eth0\nNet/wlan0\n.\n.\n", "[KorloSettings/Data/DeletedGroups]\n1=Net/*\n", Audio},
    {"a notification of a restore", "subscribe\nAudio\n.\nmerge nopersist\n[Audio]\nvolume=9\n.\nrestore\nAudio\n.\n",
     "async change\nAudio\n.\n[Audio]\nmuted=no\nvolume=9\n.\nasync change\nAudio\n.\n" + Audio + ".\n", Audio,
     ExchangeDefaults},
    {"no notification of what was not asked for", "subscribe\nAudio\n.\nmerge\n[Net/wlan0]\nmode=on\n.\n", "",
     "[Net/wlan0]\nmode=on\n", Audio + Eth0 + "[Net/wlan0]\nmode=on\n"},

    {"serialize phparray", "serialize phparray\nget delimited\nAudio\n.\n",
     "data\na:1:{s:5:\"Audio\";a:2:{s:5:\"muted\";s:2:\"no\";s:6:\"volume\";s:1:\"3\";}}\n\n.\n", "", ExchangeDefaults},
    {"serialize phparray and read no groups", "serialize phparray\nget delimited\nNobody\n.\nget delimited\n.\n",
     "data\na:0:{}\n\n.\ndata\n.\n", "", ExchangeDefaults},
    {"phparray bodies delimit themselves",
     "serialize phparray\ntest-and-merge\na:1:{s:5:\"Audio\";a:1:{s:6:\"volume\";s:1:\"3\";}}\n"
     "a:1:{s:5:\"Audio\";a:1:{s:6:\"volume\";s:1:\"4\";}}\n.\nmerge\n"
     "a:1:{s:5:\"Audio\";a:1:{s:5:\"muted\";s:3:\"yes\";}}\n.\n",
     "result\nok\n", "[Audio]\nmuted=yes\nvolume=4\n", "[Audio]\nmuted=yes\nvolume=4\n" + Eth0 + Wlan0},
    {"phparray overwrite", "serialize phparray\noverwrite\nNet/*\n.\na:0:{}\n.\n", "",
     "[KorloSettings/Data/DeletedGroups]\n1=Net/*\n", Audio},
    {"phparray notification",
     "serialize phparray\nsubscribe\nNet/wlan0\n.\nmerge\na:1:{s:9:\"Net/wlan0\";a:1:{s:4:\"mode\";s:2:\"on\";}}\n.\n",
     "async change\nNet/wlan0\n.\na:1:{s:9:\"Net/wlan0\";a:1:{s:4:\"mode\";s:2:\"on\";}}\n\n.\n",
     "[Net/wlan0]\nmode=on\n", Audio + Eth0 + "[Net/wlan0]\nmode=on\n"},
    {"phparray does not change dumps", "serialize phparray\ndump all\n", ExchangeDefaults + std::string(".\n"), "",
     ExchangeDefaults},
    {"serialize back to ini", "serialize phparray\nserialize ini\nget\nAudio\n.\n", Audio, "", ExchangeDefaults},
    {"an unknown serializer changes nothing",
     "serialize phparray\nserialize PHP\nserialize\nserialize INI\nget\nX\n.\n", "a:0:{}\n\n", "", ExchangeDefaults},

    {"stray terminators and blank lines", ".\n\n \t\n . x\n.\r\ndump\n", ".\n", "", ExchangeDefaults},
    {"requests are answered in order", "get delimited\nAudio\n.\ndump\nget\nNet/wlan0\n.\n",
     "data\n" + Audio + ".\n.\n" + Wlan0, "", ExchangeDefaults},
    {"nothing is answered after quit", "dump\nquit\ndump\n", ".\n", "", ExchangeDefaults},
};

/// The exchange of that name, which is there.
inline const Exchange& ExchangeNamed(const std::string& name)
{
    return *std::find_if(Exchanges.begin(), Exchanges.end(),
                         [&name](const Exchange& exchange) { return exchange.name == name; });
}

}  // namespace korlo::settings
