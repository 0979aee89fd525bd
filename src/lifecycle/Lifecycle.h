// SPDX-License-Identifier: GPL-3.0-or-later
// Where Corvel stands with its bridge, as data: a state, the events that move it, and the
// commands each move asks for. The controller feeds it events and runs the commands; this
// class touches nothing itself, so its rules read (and test) as one table in Lifecycle.cpp.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <QtGlobal>
#include <vector>

class Lifecycle
{
public:
    enum class State {
        StartingUp, // launched, the first search not yet begun
        Searching,
        NoSpeakers,
        Starting,
        Running,
        Retrying, // the bridge ended by itself; it is started again after a delay
        Stopped,
        Off,
        BridgeMissing,    // no bridge executable: the on/off command offers its setup
        WaitingForNetwork // the bridge's network has no address yet; the next search retries
    };

    enum class Event {
        Launched,
        OnOff,           // the user's on/off command
        SearchAsked,     // the user asked for a search (Preferences' Start, Search Again)
        StopAsked,       // the user stopped the bridge from Preferences
        BridgeInstalled, // a bridge was installed through the setup
        SearchStarted,
        SearchEnded,
        SpeakerFound,
        SpeakerDeparted,
        SpeakerChanged, // the user checked, unchecked or renamed a speaker
        BridgeStarted,
        BridgeReady,
        BridgeEnded,
        BridgeCannotStart, // the bridge ended at once: its network has no address yet
        BridgeNotReady,    // Corvel ended a bridge that was not ready in time
        BridgeMissing,
        Resumed, // the machine woke from suspend
        ApplyTimerFired,
        RetryTimerFired,
        Quit,
    };

    enum class Command {
        Search, // a search of the default length
        StopSearching,
        Watch, // keep watching for speakers between searches
        StopWatching,
        StartBridge, // with every record
        RestartBridge,
        StopBridge,
        ShutdownBridge,  // stop and wait a bounded time, at quit
        StartApplyTimer, // (again) from zero: applyDelayMs
        StopApplyTimer,
        StartRetryTimer, // retryDelayMs()
        StopRetryTimer,
        PreventSleep,
        AllowSleep,
        AnnounceStopped, // tell the rest of Corvel that the user turned it off
        ShowBridgeSetup,
        TellBridgeMissing,
        TellRetrying,
        TellNotReady, // the bridge was stopped for not getting ready; it is started again
        TellGaveUp,
    };
    using Commands = std::vector<Command>;

    // What the lifecycle asks of the world when it decides; the controller answers from the
    // real services, tests from fields.
    class Facts
    {
    public:
        virtual ~Facts() = default;
        virtual bool searchRunning() const = 0;
        virtual bool bridgeRunning() const = 0;
        virtual bool hasSpeakers() const = 0; // any speaker found and listed
        // Whether the records would give the running bridge another configuration.
        virtual bool bridgeConfigDiffers() const = 0;
    };

    // Changes to the speakers reach the bridge once they have been quiet this long.
    static constexpr int applyDelayMs = 2000;
    // A steady trickle of changes must not hold them back for ever: once changes have waited
    // this long, further ones no longer restart the quiet time.
    static constexpr int maxApplyWaitMs = 10000;
    // A bridge that ends by itself is started again after 2, 4, 8 ... 60 seconds; after
    // maxFailures such ends within failureWindowMs Corvel stops trying. Running that long
    // without failing starts the count afresh.
    static constexpr int maxRetryDelaySeconds = 60;
    static constexpr int maxFailures = 5;
    static constexpr qint64 failureWindowMs = 10 * 60 * 1000;

    // facts must outlive the lifecycle; now gives monotonic milliseconds.
    Lifecycle(const Facts &facts, std::function<qint64()> now);

    // Takes one event (launch: the bridge launch a bridge event is about) and returns the
    // commands to run, in order.
    Commands handle(Event event, quint64 launch = 0);

    State state() const { return m_state; }
    // Whether the on/off command turns Corvel on ("Turn Corvel On").
    bool onOffTurnsOn() const { return m_onOffTurnsOn; }
    bool stoppedByUser() const { return m_stoppedByUser; }
    // The bridge kept failing and Corvel stopped restarting it.
    bool gaveUp() const { return m_gaveUp; }
    // The delay StartRetryTimer asks for, in units of retryUnitMs.
    int retryDelayMs() const { return m_retryDelay * m_retryUnitMs; }
    // The retry delays are in units of this many ms (1000; tests shorten it).
    void setRetryUnit(int ms) { m_retryUnitMs = ms; }

private:
    void enter(State state, std::optional<bool> turnsOn = std::nullopt);
    void forgetFailures();
    Commands stopBridge();
    Commands applyChanges();
    Commands searchEnded();
    Commands bridgeEnded(quint64 launch, bool notReady = false);
    Commands bridgeEndedUnasked(bool notReady);

    const Facts &m_facts;
    std::function<qint64()> m_now;
    std::optional<qint64> m_changedSince; // when the first change not yet applied came
    State m_state = State::StartingUp;
    bool m_onOffTurnsOn = true;
    bool m_stoppedByUser = false;
    bool m_gaveUp = false;
    bool m_toldBridgeMissing = false;
    bool m_toldRetrying = false;
    bool m_exitExpected = false; // a stop was asked for: the next exit is no failure
    quint64 m_launch = 0;        // the bridge launch the state follows
    std::optional<qint64> m_readySince;
    std::deque<qint64> m_failures; // when the bridge ended by itself
    int m_retryDelay = 1; // seconds; doubled for each consecutive retry, 1 before the first
    int m_retryUnitMs = 1000;
};
