#pragma once
// Joins the settings of a device and a broker.

#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "BackOff.h"
#include "BridgeConfiguration.h"
#include "BrokerLink.h"
#include "LogBudget.h"
#include "Reporter.h"
#include "SettingsLink.h"
#include "TopicNames.h"
#include "WakeUp.h"
#include "WishApplier.h"
#include "WishQueue.h"
#include "Worker.h"
#include "korlo/core/Logger.h"

namespace korlo::settings::mqtt
{

/// How long the bridge waits. Production defaults; tests shorten them.
struct BridgeTimes
{
    std::chrono::milliseconds leastBackOff{1000};  // before the broker is called again
    std::chrono::milliseconds mostBackOff{60'000};
    std::chrono::milliseconds rest{100};       // between two reports of one group
    std::chrono::milliseconds retry{1000};     // after a failure of the settings server
    std::chrono::milliseconds learning{5000};  // for the next message that the broker holds
    std::chrono::milliseconds goodbye{2000};   // for the broker to take the last message
    std::chrono::milliseconds idle{5000};      // before memory is given back
};

/// The bridge. One thread, the caller of Run, does all that has to do with the broker and decides everything; two
/// workers wait for the settings server in its place, one to read what is to be reported, one to apply a wish; and the
/// settings client's own thread notes what has changed. So a server that hangs or writes to a slow disk delays no
/// answer to the broker, and what is shared between threads is a set of names and the pieces of work.
///
/// A connection to the broker goes like this:
///
/// 1. accepted: subscribe to what this device has reported, and to its status;
/// 2. subscribed: publish the status, retained. It comes back behind everything that the broker holds;
/// 3. it came back: unsubscribe from reports, let the reporter compare, and ask for wishes.
///
/// From then on a status of this device that says "not online", such as the will of a connection that was lost, is
/// corrected at once. One of a strange session tells that a second bridge has this one's name: a broker need not say
/// why it ends a connection. The two throw each other out, and so wait longer each time.
///
/// Thread safety: Stop from any thread and any signal handler; the rest belongs to one thread.
class Bridge : private IBrokerListener
{
public:
    explicit Bridge(const BridgeConfiguration& configuration, const BridgeTimes& times = {});
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    /// Returns after Stop, when the broker knows that the device is not there any more, or does not answer.
    void Run();

    void Stop();

private:
    void OnAccepted() override;
    void OnMessage(std::string_view topic, std::string_view payload, bool isHeld) override;
    void OnPublished(int message, const std::string& reason) override;
    void OnSubscribed(int message, const std::string& reason) override;

    void TakeNews();
    void Connect();
    void Serve(bool isReadable);
    void LoseBroker(const std::string& reason);
    void Wait();
    int WaitMs() const;
    void SayGoodbye();

    void HearOfStatus(std::string_view payload, bool isHeld);
    void FinishLearning();
    void AskForWishes();

    void SendStatus();
    void StartRead();
    void StartWishes();
    void HandleWish(Wish wish);
    void Apply(const Wish& wish, Desired desired);
    void Settle(const Wish& wish, const WishOutcome& outcome);
    void Reject(const Wish& wish, const Rejection& rejection);
    bool MayReject();
    void Publish(const std::string& topic, const std::string& payload, bool isRetained);

    const BridgeConfiguration _configuration;
    const BridgeTimes _times;
    core::Logger* const _pLogger;
    const TopicNames _topics;
    common::GroupNameMatcher _accepted;
    const WakeUp _wakeUp;
    std::atomic<bool> _isStopped = false;
    Clock::time_point _now = Clock::now();     // of this turn
    std::optional<Clock::time_point> _restAt;  // put off by whatever is done until then

    // The broker.
    BrokerLink _link;
    BackOff _backOff;
    Clock::time_point _nextAttempt = _now;
    std::string _lastFailure;  // told once, not each minute
    bool _isAccepted = false;
    bool _hasRival = false;                   // somebody else takes the place of this bridge
    std::string _session;                     // of this connection
    std::string _previousSession;             // of the last one that was accepted
    int _statusSubscription = 0;              // its message
    std::map<int, std::string> _subscribing;  // filters by the number of the message
    std::map<int, std::string> _publishing;   // topics of what is not a report
    bool _maySendStatus = false;              // subscribed, and not stopped
    bool _isStatusDue = false;
    std::string _status;  // the last one that was sent
    std::optional<Clock::time_point> _learnUntil;
    bool _hasLearned = false;

    // The settings.
    bool _hasSettings = false;
    Reporter _reporter;
    Clock::time_point _readAfter = _now;
    WishQueue _wishes;
    Clock::time_point _wishAfter = _now;
    Clock::time_point _askAfter = _now;
    bool _hasWishFailed = false;  // since one was applied
    BackOff _wishBackOff;
    double _rejections;  // that may be sent now
    Clock::time_point _rejectionsAt = _now;
    LogBudget _rejectionLog{"wishes that are refused"};
    LogBudget _publicationLog{"messages that the broker refuses"};

    ConfirmingSettings _wishSettings;
    WishApplier _applier{_wishSettings};  // the worker's
    SettingsLink _settings;
    Worker _reading;  // behind what it uses
    Worker _applying;
};

}  // namespace korlo::settings::mqtt
