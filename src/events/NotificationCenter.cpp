// SPDX-License-Identifier: GPL-3.0-or-later
#include "NotificationCenter.h"

#include <algorithm>

NotificationCenter &NotificationCenter::defaultCenter()
{
    static NotificationCenter center;
    return center;
}

NotificationCenter::Token NotificationCenter::addObserver(const QString &name, Block block)
{
    std::lock_guard locker(m_mutex);
    const Token token = m_nextToken++;
    m_entries.push_back(std::make_shared<Entry>(Entry{token, name, std::move(block)}));
    return token;
}

void NotificationCenter::removeObserver(Token token)
{
    std::lock_guard locker(m_mutex);
    const auto it = std::find_if(m_entries.begin(), m_entries.end(),
                                 [token](const auto &entry) { return entry->token == token; });
    if (it == m_entries.end())
        return;
    (*it)->removed = true;
    m_entries.erase(it);
}

void NotificationCenter::post(const QString &name, const QVariantMap &userInfo)
{
    // Deliver from a snapshot so that observers can change the list while being called.
    std::vector<std::shared_ptr<Entry>> targets;
    {
        std::lock_guard locker(m_mutex);
        for (const auto &entry : m_entries) {
            if (entry->name == name)
                targets.push_back(entry);
        }
    }
    const Notification notification{name, userInfo};
    for (const auto &entry : targets) {
        {
            std::lock_guard locker(m_mutex);
            if (entry->removed)
                continue;
        }
        entry->block(notification);
    }
}

int NotificationCenter::observerCount() const
{
    std::lock_guard locker(m_mutex);
    return static_cast<int>(m_entries.size());
}
