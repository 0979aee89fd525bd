// SPDX-License-Identifier: GPL-3.0-or-later
// The process-wide event hub: named notifications delivered synchronously to observers.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <QString>
#include <QVariantMap>
#include <vector>

struct Notification
{
    QString name;
    QVariantMap userInfo; // empty except for "deviceDiscovered"
};

class NotificationCenter
{
public:
    using Block = std::function<void(const Notification &)>;
    // Identifies one observer; 0 is never handed out.
    using Token = quint64;

    // The process-wide hub.
    static NotificationCenter &defaultCenter();

    // Calls block for every later post of name, on the posting thread, after the
    // observers added before it.
    Token addObserver(const QString &name, Block block);
    // Stops delivery to the observer; an unknown token is ignored. An observer removed
    // while a post is being delivered is not called for the rest of that post.
    void removeObserver(Token token);
    // Delivers to every observer of name before returning. Observers may add or remove
    // observers while being called; added ones see only later posts.
    void post(const QString &name, const QVariantMap &userInfo = {});

    int observerCount() const;

private:
    struct Entry
    {
        Token token;
        QString name;
        Block block;
        bool removed = false; // guarded by m_mutex
    };
    mutable std::mutex m_mutex; // std::mutex, so that ThreadSanitizer sees it
    std::vector<std::shared_ptr<Entry>> m_entries;
    Token m_nextToken = 1;
};
