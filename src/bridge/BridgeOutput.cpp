// SPDX-License-Identifier: GPL-3.0-or-later
#include "BridgeOutput.h"

#include <QCoreApplication>
#include <QRegularExpression>

namespace {
// "[HH:MM:SS.mmm] Function:LINE " (six decimals in older bridges); some lines carry none.
const QRegularExpression
    prefix(QStringLiteral(R"(^\s*\[\d\d:\d\d:\d\d\.\d{3,6}\]\s+(?:[A-Za-z_]\w*:\d*\s+)?)"));
// Most speaker lines start with the bridge's pointer for the speaker: "[0x55d1…]:" or "[0x…]".
const QRegularExpression pointerLine(QStringLiteral(R"(^\[(0x[0-9a-fA-F]+|\(nil\))\]:?\s+(.*)$)"));
} // namespace

void BridgeOutput::reset()
{
    m_targets.clear();
    m_speakers.clear();
    m_problems.clear();
}

void BridgeOutput::set(const QString &name, BridgeSpeakerState state)
{
    m_speakers[name] = state;
}

void BridgeOutput::problem(BridgeProblem::Kind kind, const QString &detail)
{
    BridgeProblem found{kind, {}, {}};
    switch (kind) {
    case BridgeProblem::PortsInUse:
        found.english = QStringLiteral("Another program holds the bridge's ports (%1): close "
                                       "it, or another copy of the bridge, and turn Corvel off "
                                       "and on.");
        found.shown = QCoreApplication::translate(
            "BridgeOutput", "Another program holds the bridge's ports (%1): close it, or another "
                            "copy of the bridge, and turn Corvel off and on.");
        break;
    case BridgeProblem::UpnpFailed:
        found.english = QStringLiteral("The bridge could not start UPnP (%1): the network is "
                                       "not ready yet. Corvel tries again when it is.");
        found.shown = QCoreApplication::translate(
            "BridgeOutput", "The bridge could not start UPnP (%1): the network is not ready yet. "
                            "Corvel tries again when it is.");
        break;
    case BridgeProblem::TargetFailed:
        found.english = QStringLiteral("The bridge could not offer %1 as an AirPlay target: "
                                       "another program may hold its ports.");
        found.shown = QCoreApplication::translate(
            "BridgeOutput", "The bridge could not offer %1 as an AirPlay target: another program "
                            "may hold its ports.");
        break;
    case BridgeProblem::StreamDropped:
        found.english = QStringLiteral("%1 stopped the stream right after fetching it: the "
                                       "speaker refused the audio format. Updating the bridge "
                                       "usually helps.");
        found.shown = QCoreApplication::translate(
            "BridgeOutput", "%1 stopped the stream right after fetching it: the speaker refused "
                            "the audio format. Updating the bridge usually helps.");
        break;
    }
    found.english = found.english.arg(detail);
    found.shown = found.shown.arg(detail);
    m_problems.push_back(std::move(found));
}

std::optional<BridgeProblem> BridgeOutput::takeProblem()
{
    if (m_problems.empty())
        return std::nullopt;
    BridgeProblem first = std::move(m_problems.front());
    m_problems.erase(m_problems.begin());
    return first;
}

bool BridgeOutput::take(const QString &line, qint64 nowMs)
{
    static const QRegularExpression upnpFailed(
        QStringLiteral(R"(UPnP init in (\S+) \(([^)]*)\) failed: (-?\d+))"));
    static const QRegularExpression adding(QStringLiteral(R"(^adding renderer \((.+)\) with mac)"));
    static const QRegularExpression skipping(QStringLiteral(R"(^skipping Sonos slave (.+)$)"));
    static const QRegularExpression role(QStringLiteral(R"(^Sonos (.+) is now (slave|master)$)"));
    static const QRegularExpression removing(
        QStringLiteral(R"(^removing unresponsive player \((.+)\))"));
    static const QRegularExpression byeBye(QStringLiteral(R"(^renderer <(.+)> bye-bye)"));
    static const QRegularExpression raopFailed(
        QStringLiteral(R"(^cannot create RAOP instance \((.+)\))"));

    QString message = line;
    message.remove(prefix);
    message = message.trimmed();
    if (message.contains(QLatin1String("Cannot bind or listen RTSP listener"))) {
        problem(BridgeProblem::PortsInUse, message.section(QLatin1Char(':'), 1).trimmed());
        return false;
    }
    if (const auto match = upnpFailed.match(message); match.hasMatch()) {
        problem(BridgeProblem::UpnpFailed,
                QStringLiteral("%1, error %2").arg(match.captured(1), match.captured(3)));
        return false;
    }
    const auto pointed = pointerLine.match(message);
    if (!pointed.hasMatch())
        return false;
    const QString pointer = pointed.captured(1);
    const QString text = pointed.captured(2);
    const auto target = m_targets.find(pointer);
    // The name the bridge gave the speaker on its "adding renderer" line, else this line's.
    const auto nameOf = [&](const QString &said) {
        return target != m_targets.end() ? target->second.name : said;
    };
    if (const auto match = adding.match(text); match.hasMatch()) {
        // A pointer is reused once its speaker was removed: it names the new one now.
        m_targets[pointer] = Target{match.captured(1)};
        set(match.captured(1), BridgeSpeakerState::Ready);
        return true;
    }
    if (const auto match = skipping.match(text); match.hasMatch()) {
        set(match.captured(1).trimmed(), BridgeSpeakerState::Member);
        return true;
    }
    if (const auto match = role.match(text); match.hasMatch()) {
        set(nameOf(match.captured(1)), match.captured(2) == QLatin1String("slave")
                                           ? BridgeSpeakerState::Member
                                           : BridgeSpeakerState::Ready);
        return true;
    }
    if (const auto match = removing.match(text); match.hasMatch()) {
        set(nameOf(match.captured(1)), BridgeSpeakerState::Gone);
        if (target != m_targets.end())
            m_targets.erase(target);
        return true;
    }
    if (const auto match = byeBye.match(text); match.hasMatch()) {
        set(nameOf(match.captured(1)), BridgeSpeakerState::Gone);
        return true;
    }
    if (const auto match = raopFailed.match(text); match.hasMatch()) {
        problem(BridgeProblem::TargetFailed, nameOf(match.captured(1)));
        return false;
    }
    if (target == m_targets.end())
        return false; // other pointers are the sound library's sessions
    Target &speaker = target->second;
    const auto state = [&](BridgeSpeakerState next) {
        const auto known = m_speakers.find(speaker.name);
        if (known != m_speakers.end() && known->second == next)
            return false;
        set(speaker.name, next);
        return true;
    };
    if (text.startsWith(QLatin1String("uPNP setURI"))) {
        speaker.streamServedAt = nowMs;
        speaker.playedSince = false;
        return false;
    }
    if (text.startsWith(QLatin1String("uPNP playing"))) {
        speaker.playedSince = true;
        return state(BridgeSpeakerState::Playing);
    }
    // The bridge's own stop, pause or flush: whatever ends next was asked to.
    if (text == QLatin1String("Stop") || text == QLatin1String("Flush") ||
        text.startsWith(QLatin1String("uPNP stop ("))) {
        speaker.streamServedAt = -1;
        return state(BridgeSpeakerState::Ready);
    }
    if (text.startsWith(QLatin1String("uPNP stopped")) ||
        text.startsWith(QLatin1String("uPNP pause"))) {
        // Stopped by the speaker within moments of taking the stream, never having played.
        if (text.startsWith(QLatin1String("uPNP stopped")) && speaker.streamServedAt >= 0 &&
            !speaker.playedSince && nowMs - speaker.streamServedAt < droppedStreamMs)
            problem(BridgeProblem::StreamDropped, speaker.name);
        speaker.streamServedAt = -1;
        return state(BridgeSpeakerState::Ready);
    }
    return false;
}
