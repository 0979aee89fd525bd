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
    // A name may fill the whole address: its length is given, it needs no final NUL.
    if (path.isEmpty() || static_cast<size_t>(path.size()) > sizeof address.sun_path)
        return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0'; // an abstract socket
    // A socket that could not be made (-1) fails the send and the close, and nothing else.
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    ::sendto(fd, message.constData(), static_cast<size_t>(message.size()), MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr *>(&address), length);
    ::close(fd);
}
