// SPDX-License-Identifier: GPL-3.0-or-later
// The lifecycle's rules, all of them: for each event, what it does in each state.
#include "Lifecycle.h"

#include "Logging.h"

#include <algorithm>
#include <utility>

using C = Lifecycle::Command;
using S = Lifecycle::State;

Lifecycle::Lifecycle(const Facts &facts, std::function<qint64()> now)
    : m_facts(facts), m_now(std::move(now))
{
}

Lifecycle::Commands Lifecycle::handle(Event event, quint64 launch)
{
    switch (event) {
    case Event::Launched:
        m_stoppedByUser = false;
        return {C::Search, C::Watch};

    case Event::OnOff: {
        // Without a bridge the command is "Install Bridge…".
        if (m_state == S::BridgeMissing)
            return {C::ShowBridgeSetup};
        const bool turningOn = m_onOffTurnsOn;
        logInfo(turningOn ? QStringLiteral("onClicked") : QStringLiteral("offClicked"));
        m_stoppedByUser = !turningOn;
        // Either way the bridge's failures so far are forgotten.
        m_gaveUp = false;
        forgetFailures();
        if (turningOn) {
            enter(S::Searching, false);
            return {C::StopRetryTimer, C::Search, C::Watch};
        }
        enter(S::Off, true);
        m_changedSince.reset();
        Commands commands{C::StopRetryTimer, C::StopApplyTimer, C::AnnounceStopped, C::StopWatching,
                          C::StopSearching};
        for (const Command command : stopBridge())
            commands.push_back(command);
        return commands;
    }

    case Event::SearchAsked:
        m_stoppedByUser = false;
        return {C::Search};

    case Event::StopAsked:
        return stopBridge();

    case Event::BridgeInstalled:
        // Carry on as after a start: search, then start the bridge with what was found.
        m_toldBridgeMissing = false;
        m_stoppedByUser = false;
        enter(S::Searching, false);
        return {C::Search, C::Watch};

    case Event::SearchStarted:
        // Without a bridge the search still runs (this computer's own sound needs none), but
        // the title keeps saying what the user has to do.
        enter(m_state == S::BridgeMissing ? S::BridgeMissing : S::Searching, false);
        return {};

    case Event::SearchEnded:
        return searchEnded();

    case Event::SpeakerFound:
    case Event::SpeakerDeparted:
    case Event::SpeakerChanged:
        // Each change starts the quiet time afresh, until the first waited maxApplyWaitMs.
        if (!m_changedSince)
            m_changedSince = m_now();
        if (m_now() - *m_changedSince >= maxApplyWaitMs)
            return {};
        return {C::StartApplyTimer};

    case Event::ApplyTimerFired:
        m_changedSince.reset();
        return applyChanges();

    case Event::BridgeStarted:
        m_launch = launch;
        m_exitExpected = false;
        m_readySince.reset();
        enter(S::Starting);
        return {C::PreventSleep};

    case Event::BridgeReady:
        // Only the launch the state follows may change it.
        if (launch != m_launch)
            return {};
        m_readySince = m_now();
        enter(S::Running);
        return {};

    case Event::BridgeEnded:
        return bridgeEnded(launch);

    case Event::BridgeNotReady:
        // A failure like an end by itself (retried with back-off), told as what it was.
        return bridgeEnded(launch, true);

    case Event::BridgeCannotStart:
        // Not a failure: the network comes up later (at login, after a cable or Wi-Fi change),
        // and the search that follows the change starts the bridge again.
        if (launch == m_launch && !m_exitExpected && !m_stoppedByUser &&
            (m_state == S::Starting || m_state == S::Running)) {
            logWarning(QStringLiteral("AirConnect cannot start until its network has an "
                                      "address; waiting for the network"));
            enter(S::WaitingForNetwork);
            return {C::AllowSleep};
        }
        return bridgeEnded(launch);

    case Event::Resumed:
        // Senders forget targets whose announcements expired during sleep, and a bridge may
        // hang after a suspend: search again and start the bridge afresh.
        if (m_stoppedByUser)
            return {};
        if (m_facts.bridgeRunning())
            return {C::Search, C::RestartBridge};
        return {C::Search};

    case Event::RetryTimerFired:
        if (m_stoppedByUser || m_state != S::Retrying)
            return {};
        logInfo(QStringLiteral("Restarting AirConnect"));
        return {C::StartBridge};

    case Event::BridgeMissing:
        enter(S::BridgeMissing, false);
        if (std::exchange(m_toldBridgeMissing, true))
            return {};
        return {C::TellBridgeMissing};

    case Event::Quit:
        m_exitExpected = true;
        return {C::ShutdownBridge};
    }
    return {};
}

Lifecycle::Commands Lifecycle::searchEnded()
{
    // Turned off and at once on again: the search that ended is not the one running now,
    // which decides when it completes.
    if (m_facts.searchRunning()) {
        logInfo(QStringLiteral("Discovery complete, but a newer search runs"));
        return {};
    }
    if (!m_facts.hasSpeakers()) {
        logWarning(QStringLiteral("Discovery finished with no speakers found"));
        if (m_state != S::BridgeMissing)
            enter(S::NoSpeakers);
        return {};
    }
    if (m_stoppedByUser) {
        logInfo(QStringLiteral("Discovery complete, bridge is stopped"));
        return {};
    }
    if (!m_facts.bridgeRunning()) {
        logInfo(QStringLiteral("Discovery complete, starting AirConnect"));
        return {C::StartBridge};
    }
    logInfo(QStringLiteral("Discovery complete, AirConnect already running"));
    return {C::StartApplyTimer}; // what this search changed reaches the bridge
}

Lifecycle::Commands Lifecycle::applyChanges()
{
    if (m_stoppedByUser) // turned off
        return {};
    // A search decides when it completes (and comes back here).
    if (m_facts.searchRunning())
        return {};
    if (m_facts.bridgeRunning()) {
        if (!m_facts.bridgeConfigDiffers())
            return {};
        logInfo(QStringLiteral("Speakers changed, restarting AirConnect"));
        enter(S::Starting);
        return {C::RestartBridge};
    }
    // Speakers appeared after a search that found none.
    if (m_state == S::NoSpeakers && m_facts.hasSpeakers()) {
        logInfo(QStringLiteral("Speakers found, starting AirConnect"));
        return {C::StartBridge};
    }
    return {};
}

Lifecycle::Commands Lifecycle::bridgeEnded(quint64 launch, bool notReady)
{
    // Only the launch the state follows may change it.
    if (launch != m_launch)
        return {};
    if (m_state == S::Starting || m_state == S::Running) {
        if (!m_exitExpected && !m_stoppedByUser) {
            Commands commands = bridgeEndedUnasked(notReady);
            commands.insert(commands.begin(), C::AllowSleep);
            return commands;
        }
        enter(S::Stopped, true);
    } else if (m_state == S::Off) {
        enter(S::Stopped, true);
    }
    // Otherwise a new search began while the stopped bridge was exiting: its state stays.
    return {C::AllowSleep};
}

Lifecycle::Commands Lifecycle::bridgeEndedUnasked(bool notReady)
{
    const qint64 now = m_now();
    if (m_readySince && now - *m_readySince >= failureWindowMs)
        forgetFailures(); // it had been running well: a fresh start
    m_failures.push_back(now);
    while (now - m_failures.front() > failureWindowMs)
        m_failures.pop_front();
    if (static_cast<int>(m_failures.size()) >= maxFailures) {
        logError(QStringLiteral("AirConnect ended %1 times within 10 minutes; not restarting it")
                     .arg(maxFailures));
        forgetFailures();
        m_gaveUp = true;
        enter(S::Stopped, true);
        return {C::TellGaveUp};
    }
    m_retryDelay = std::min(m_retryDelay * 2, maxRetryDelaySeconds); // 2, 4, 8 … 60 s
    logWarning(notReady ? QStringLiteral("AirConnect was not ready in time, so Corvel stopped it; "
                                         "restarting it in %1 s")
                              .arg(m_retryDelay)
                        : QStringLiteral("AirConnect ended by itself; restarting it in %1 s")
                              .arg(m_retryDelay));
    enter(S::Retrying);
    if (std::exchange(m_toldRetrying, true))
        return {C::StartRetryTimer};
    return {notReady ? C::TellNotReady : C::TellRetrying, C::StartRetryTimer};
}

Lifecycle::Commands Lifecycle::stopBridge()
{
    // The exit of a bridge stopped on purpose is no failure.
    m_exitExpected = m_facts.bridgeRunning();
    return {C::StopBridge};
}

void Lifecycle::forgetFailures()
{
    m_failures.clear();
    m_retryDelay = 1;
    m_toldRetrying = false;
}

void Lifecycle::enter(State state, std::optional<bool> turnsOn)
{
    m_state = state;
    if (turnsOn)
        m_onOffTurnsOn = *turnsOn;
}
