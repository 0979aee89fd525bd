// SPDX-License-Identifier: GPL-3.0-or-later
#include "ServiceManager.h"

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

void notifyServiceManager(const QByteArray &message)
{
    const QByteArray path = qgetenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path.isEmpty() || static_cast<size_t>(path.size()) >= sizeof address.sun_path)
        return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0'; // an abstract socket
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1)
        return;
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    ::sendto(fd, message.constData(), static_cast<size_t>(message.size()), MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr *>(&address), length);
    ::close(fd);
}
