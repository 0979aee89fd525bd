// SPDX-License-Identifier: GPL-3.0-or-later
// Reads the bridge's output line by line into what it says of each speaker (offered, playing,
// a member of a group, gone) and of itself (ports taken, UPnP not started, a target it could
// not create, a stream a speaker dropped at once). Lines it does not know change nothing.
#pragma once

#include <map>
#include <optional>
#include <QString>
#include <vector>

// What the bridge says of one speaker, by the name it uses for it.
enum class BridgeSpeakerState { Ready, Playing, Member, Gone };

// A fault of the bridge, in one sentence with what to do, for the log and the screen.
struct BridgeProblem
{
    enum Kind { PortsInUse, UpnpFailed, TargetFailed, StreamDropped };
    Kind kind;
    QString english;
    QString shown;
};

class BridgeOutput
{
public:
    // A speaker that fetched its stream and stopped within this long refused the audio.
    static constexpr qint64 droppedStreamMs = 15000;

    // Takes one line of output (its timestamp included) seen at nowMs (monotonic); whether
    // what it knows of the speakers changed.
    bool take(const QString &line, qint64 nowMs);
    // A problem the last lines revealed, once each.
    std::optional<BridgeProblem> takeProblem();
    // The speakers by the name the bridge gave them: the room name on "adding renderer",
    // the configured name on the lines that follow.
    const std::map<QString, BridgeSpeakerState> &speakers() const { return m_speakers; }
    // A new bridge process: nothing is known.
    void reset();

private:
    struct Target
    {
        QString name;
        qint64 streamServedAt = -1; // when its HTTP stream was last answered
        bool playedSince = false;
    };
    void set(const QString &name, BridgeSpeakerState state);
    void problem(BridgeProblem::Kind kind, const QString &detail);

    std::map<QString, Target> m_targets; // by the bridge's pointer ("0x…")
    std::map<QString, BridgeSpeakerState> m_speakers;
    std::vector<BridgeProblem> m_problems;
};
