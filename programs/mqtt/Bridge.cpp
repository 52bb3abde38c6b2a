#include "Bridge.h"

#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <random>
#include <utility>

#include <poll.h>

#include "ResidentMemory.h"
#include "korlo/osa/Exception.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::settings::mqtt
{
namespace
{

constexpr double MostRejections = 100;       // at once
constexpr double RejectionsPerSecond = 20;   // in the long run
constexpr std::size_t MostPublishing = 100;  // answers that the broker has not taken yet

/// A new UUID, of the random kind.
std::string NewSession()
{
    constexpr std::string_view form = "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx";
    constexpr std::string_view digits = "0123456789abcdef";
    constexpr std::size_t variant = 8;
    std::random_device random;
    std::uniform_int_distribution<std::size_t> digit(0, digits.size() - 1);
    std::string session;
    for (const char place : form)
    {
        const std::size_t drawn = digit(random);
        session += place == 'x' ? digits[drawn] : place == 'y' ? digits[variant + drawn % 4] : place;
    }
    return session;
}

}  // namespace

Bridge::Bridge(const BridgeConfiguration& configuration, const BridgeTimes& times)
    : _configuration(configuration),
      _times(times),
      _pLogger(core::Logger::GetLogger("MqttBridge")),
      _topics(configuration.deviceName),
      _link(configuration.broker, *this),
      _backOff(times.leastBackOff, times.mostBackOff),
      _reporter(_link, _topics, configuration.report, times.rest),
      _wishBackOff(times.retry, times.mostBackOff),
      _rejections(MostRejections),
      _wishSettings(configuration.settingsAddress),
      _settings(configuration.settingsAddress, configuration.report, _wakeUp),
      _reading("MqttReading", _wakeUp),
      _applying("MqttApplying", _wakeUp)
{
    _accepted.AddNamesAndPatterns(configuration.accept);
}

void Bridge::Stop()
{
    _isStopped = true;
    _wakeUp.Raise();
}

void Bridge::Run()
{
    while (!_isStopped)
    {
        _now = Clock::now();
        TakeNews();
        _reading.Collect();
        _applying.Collect();
        if (!_link.IsOpen() && _now >= _nextAttempt)
        {
            Connect();
        }
        _reporter.EndRests(_now);
        if (_learnUntil && _now >= *_learnUntil)
        {
            FinishLearning();
        }
        SendStatus();
        StartRead();
        StartWishes();
        if (_restAt && _now >= *_restAt)
        {
            _restAt.reset();
            ResidentMemory::GiveBack();
        }
        Wait();
    }
    SayGoodbye();
}

void Bridge::TakeNews()
{
    const SettingsLink::News news = _settings.TakeNews();
    if (news.isConnected != _hasSettings)
    {
        _hasSettings = news.isConnected;
        _isStatusDue = true;
        _pLogger->Information("The settings server is %s", _hasSettings ? "there" : "away");
    }
    _reporter.OnChanged(news.changed);
    if (news.hasReconnected && _hasSettings)
    {
        _reporter.OnSettingsFound();
        AskForWishes();
    }
    if (!_hasSettings)
    {
        _wishes.Drop();  // the broker holds them
    }
}

void Bridge::Connect()
{
    _restAt = _now + _times.idle;
    _session = NewSession();
    _hasRival = false;
    try
    {
        _link.Connect(_topics.GetStatus(), StatusPayload(false, _session, false));
    }
    catch (const osa::Exception& exception)
    {
        LoseBroker(exception.what());
    }
}

void Bridge::Serve(bool isReadable)
{
    try
    {
        _link.Serve(isReadable);
    }
    catch (const osa::Exception& exception)
    {
        LoseBroker(exception.what());
    }
}

void Bridge::LoseBroker(const std::string& reason)
{
    _now = Clock::now();
    if (_isAccepted && !_hasRival && !_link.WasTakenOver())
    {
        _backOff.Reset();
    }
    if (_isAccepted || reason != _lastFailure)
    {
        _pLogger->Warning("%s the broker at %s:%d: %s; trying again, at least once a minute",
                          _isAccepted ? "Lost" : "Failed to connect to", _configuration.broker.host.c_str(),
                          _configuration.broker.port, reason.c_str());
    }
    _lastFailure = reason;
    _nextAttempt = _now + _backOff.Next();
    _previousSession = _isAccepted ? _session : _previousSession;
    _isAccepted = false;
    _maySendStatus = false;
    _hasLearned = false;
    _learnUntil.reset();
    _subscribing.clear();
    _publishing.clear();
    _wishes.Clear();
    _reporter.OnBrokerLost();
}

void Bridge::OnAccepted()
{
    _pLogger->Information("Connected to the broker at %s:%d as '%s'", _configuration.broker.host.c_str(),
                          _configuration.broker.port, _configuration.broker.clientId.c_str());
    _isAccepted = true;
    _lastFailure.clear();
    _rejectionLog.Renew();
    _publicationLog.Renew();
    _reporter.OnBrokerFound();
    _subscribing[_link.Subscribe(_topics.AllReported(), BrokerLink::WhatIsHeld)] = _topics.AllReported();
    _statusSubscription = _link.Subscribe(_topics.GetStatus(), BrokerLink::WhatIsHeld);
    _subscribing[_statusSubscription] = _topics.GetStatus();
}

void Bridge::OnSubscribed(int message, const std::string& reason)
{
    if (!reason.empty())
    {
        _pLogger->Error("The broker refuses the subscription to '%s': %s", _subscribing[message].c_str(),
                        reason.c_str());
    }
    _subscribing.erase(message);
    if (message == _statusSubscription)
    {
        _maySendStatus = true;
        _isStatusDue = true;
        _learnUntil = Clock::now() + _times.learning;
    }
}

void Bridge::OnMessage(std::string_view topic, std::string_view payload, bool isHeld)
{
    const TopicNames::Parts parts = _topics.Parse(topic);
    switch (parts.kind)
    {
    case TopicNames::Status:
        HearOfStatus(payload, isHeld);
        break;
    case TopicNames::Reported:
        _reporter.OnHeld(parts, payload);
        if (_learnUntil)
        {
            _learnUntil = Clock::now() + _times.learning;
        }
        break;
    case TopicNames::Desired:
        if (_hasSettings && !payload.empty())  // else the broker is asked again when the server is there
        {
            _wishes.Add(parts, payload, isHeld);
        }
        break;
    case TopicNames::Foreign:
        break;
    }
}

/// @param isHeld then it may be that of the bridge that was here before this process.
void Bridge::HearOfStatus(std::string_view payload, bool isHeld)
{
    const std::optional<std::string> session = OnlineSession(payload);
    if (session && session != _session && session != _previousSession && (!isHeld || !_previousSession.empty()) &&
        !std::exchange(_hasRival, true))
    {
        _pLogger->Error("Another client says that it is this device: is there a second bridge of this name?");
    }
    if (!_maySendStatus)
    {
        return;
    }
    if (payload == _status)
    {
        FinishLearning();
    }
    else if (!session)
    {
        _isStatusDue = true;
    }
}

/// Everything that the broker holds has come: what it sends now comes behind it.
void Bridge::FinishLearning()
{
    _learnUntil.reset();
    if (!_hasLearned)
    {
        _hasLearned = true;
        _link.Unsubscribe(_topics.AllReported());
        _reporter.OnAllHeldIsKnown();
        AskForWishes();
    }
}

void Bridge::AskForWishes()
{
    if (_hasLearned && _hasSettings)
    {
        _wishes.NoteAsked();
        _askAfter = _now + _times.retry;
        _subscribing[_link.Subscribe(_topics.AllDesired(), BrokerLink::WhatIsHeld)] = _topics.AllDesired();
        _subscribing[_link.Subscribe(_topics.AllDesired(), BrokerLink::WhatFollows)] = _topics.AllDesired();
    }
}

void Bridge::OnPublished(int message, const std::string& reason)
{
    if (_reporter.OnPublished(message, reason))
    {
        return;
    }
    const auto published = _publishing.find(message);
    if (published == _publishing.end())
    {
        return;
    }
    if (!reason.empty() && _publicationLog.Allows())
    {
        _pLogger->Error("The broker refuses a message to '%s': %s", published->second.c_str(), reason.c_str());
    }
    if (!reason.empty() && _learnUntil && published->second == _topics.GetStatus())
    {
        _learnUntil = Clock::now();  // it will not come back
    }
    _publishing.erase(published);
}

void Bridge::Publish(const std::string& topic, const std::string& payload, bool isRetained)
{
    const BrokerLink::Publication publication = _link.Publish(topic, payload, isRetained);
    if (publication.fate == BrokerLink::Publication::Sent)
    {
        _publishing[publication.message] = topic;
    }
    else if (_link.IsOpen() && _publicationLog.Allows())
    {
        _pLogger->Warning("A message to '%s' is not sent: %s", topic.c_str(), publication.reason.c_str());
    }
}

void Bridge::SendStatus()
{
    if (_maySendStatus && std::exchange(_isStatusDue, false))
    {
        _status = StatusPayload(true, _session, _hasSettings);
        Publish(_topics.GetStatus(), _status, true);
    }
}

void Bridge::StartRead()
{
    if (!_hasSettings || _reading.IsBusy() || _now < _readAfter)
    {
        return;
    }
    struct Read
    {
        GroupNameCollection entries;
        core::IniFile settings;
        std::string failure;
    };
    const auto pRead = std::make_shared<Read>();
    pRead->entries = _reporter.TakeNextRead();
    if (pRead->entries.empty())
    {
        return;
    }
    _reading.Start(
        [this, pRead] {
            try
            {
                _settings.Read(pRead->entries, pRead->settings);
            }
            catch (const std::exception& exception)
            {
                pRead->failure = exception.what();
            }
        },
        [this, pRead] {
            _restAt = _now + _times.idle;
            if (pRead->failure.empty())
            {
                _reporter.OnRead(pRead->settings, _now);
                return;
            }
            _pLogger->Information("The settings could not be read: %s; trying again", pRead->failure.c_str());
            _reporter.OnReadFailed();
            _readAfter = _now + _times.retry;
        });
}

void Bridge::StartWishes()
{
    while (_hasSettings && _hasLearned && !_applying.IsBusy() && _now >= _wishAfter && !_wishes.IsEmpty() &&
           _publishing.size() < MostPublishing)
    {
        HandleWish(_wishes.Take());
    }
    if (_wishes.HasDropped() && _wishes.IsEmpty() && !_applying.IsBusy() && _now >= _askAfter)
    {
        AskForWishes();
    }
}

void Bridge::HandleWish(Wish wish)
{
    if (!wish.topic.group)
    {
        Reject(wish, {std::nullopt, Rejection::MakesNoSense,
                      "'" + wish.topic.level +
                          "' is the form of no group's name: bytes other than letters, digits and "
                          "-._~ are written as %HH in upper case, and no others",
                      0});
        return;
    }
    if (wish.isTooLarge)
    {
        Reject(wish, {std::nullopt, Rejection::TooLarge,
                      "the payload is larger than " + std::to_string(MostDesiredBytes) + " bytes", 0});
        return;
    }
    try
    {
        Desired desired = ReadDesired(wish.payload);
        if (*wish.topic.group == FleetGroup || server::GroupDiscriminator::IsRestrictedGroup(*wish.topic.group) ||
            !_accepted.SelectsAny({*wish.topic.group}))
        {
            Reject(wish,
                   {desired.version, Rejection::NotAllowed, "the device does not accept wishes for this group", 0});
            return;
        }
        Apply(wish, std::move(desired));
    }
    catch (const PayloadFault& fault)
    {
        Reject(wish, {fault.version, Rejection::MakesNoSense, fault.message, 0});
    }
}

void Bridge::Apply(const Wish& wish, Desired desired)
{
    struct Application
    {
        Wish wish;
        Desired desired;
        WishOutcome outcome;
    };
    const auto pApplication = std::make_shared<Application>(Application{wish, std::move(desired), {}});
    _applying.Start(
        [this, pApplication] {
            const Wish& applied = pApplication->wish;
            pApplication->outcome = _applier.Apply(*applied.topic.group, pApplication->desired, applied.isRepeated);
        },
        [this, pApplication] { Settle(pApplication->wish, pApplication->outcome); });
}

void Bridge::Settle(const Wish& wish, const WishOutcome& outcome)
{
    _restAt = _now + _times.idle;
    if (outcome.result == WishOutcome::Failed)
    {
        if (!std::exchange(_hasWishFailed, true))
        {
            _pLogger->Warning("A wish for '%s' could not be applied: %s; trying again", wish.topic.group->c_str(),
                              outcome.reason.c_str());
        }
        _wishes.AddAgain(wish);
        _wishAfter = _now + _wishBackOff.Next();
        return;
    }
    _hasWishFailed = false;
    _wishBackOff.Reset();
    if (outcome.result == WishOutcome::Rejected)
    {
        Reject(wish, outcome.rejection);
        return;
    }
    _wishes.NoteSettled(wish);
    if (outcome.result == WishOutcome::Accepted)
    {
        Publish(_topics.AcceptedAtLevel(wish.topic.level), AcceptedPayload(outcome.rejection.version.value_or(0)),
                false);
    }
}

void Bridge::Reject(const Wish& wish, const Rejection& rejection)
{
    _wishes.NoteSettled(wish);
    if (_rejectionLog.Allows())
    {
        _pLogger->Warning("A wish for '%s' is refused: %d, %s", wish.topic.level.c_str(), rejection.code,
                          rejection.message.c_str());
    }
    if (MayReject())
    {
        Publish(_topics.RejectedAtLevel(wish.topic.level), RejectedPayload(rejection), false);
    }
}

bool Bridge::MayReject()
{
    const std::chrono::duration<double> passed = _now - std::exchange(_rejectionsAt, _now);
    _rejections = std::min(MostRejections, _rejections + passed.count() * RejectionsPerSecond);
    if (_rejections < 1)
    {
        return false;
    }
    _rejections -= 1;
    return true;
}

/// Until there is something to do.
void Bridge::Wait()
{
    std::array<pollfd, 2> polled{pollfd{_wakeUp.GetDescriptor(), POLLIN, 0},
                                 pollfd{_link.GetDescriptor(), POLLIN, 0}};  // a negative descriptor is left out
    if (_link.WantsToWrite())
    {
        polled[1].events |= POLLOUT;
    }
    const int count = ::poll(polled.data(), polled.size(), WaitMs());
    if (count > 0 && polled[0].revents != 0)
    {
        _wakeUp.Clear();
    }
    if (_link.IsOpen())
    {
        Serve(count > 0 && (polled[1].revents & ~POLLOUT) != 0);
    }
}

int Bridge::WaitMs() const
{
    constexpr std::chrono::seconds most{1};  // for what keeps the connection alive
    const Clock::time_point now = Clock::now();
    Clock::time_point next = now + most;
    const auto consider = [&next, this](Clock::time_point time) { next = time > _now ? std::min(next, time) : next; };
    consider(_nextAttempt);
    consider(_readAfter);
    consider(_wishAfter);
    consider(_askAfter);
    consider(_reporter.GetNextTime().value_or(next));
    consider(_learnUntil.value_or(next));
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(std::max(next - now, Clock::duration(0)));
    return static_cast<int>(left.count());
}

void Bridge::SayGoodbye()
{
    if (_link.IsOpen() && _isAccepted)
    {
        _publishing.clear();
        _maySendStatus = false;
        Publish(_topics.GetStatus(), StatusPayload(false, _session, false), true);
        const Clock::time_point until = Clock::now() + _times.goodbye;
        while (_link.IsOpen() && !_publishing.empty() && Clock::now() < until)
        {
            Wait();
        }
    }
    _link.Disconnect();
}

}  // namespace korlo::settings::mqtt
