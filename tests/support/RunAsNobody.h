// SPDX-License-Identifier: GPL-3.0-or-later
// Runs a check in a child process without root's rights, so that permission failures can be
// tested when the suite itself runs as root (as CI does).
#pragma once

#include <functional>
#include <sys/wait.h>
#include <unistd.h>

// Returns the child's verdict: 1 when fn returned true, 0 when false, -1 when the child
// could not be started or could not drop its rights.
inline int runAsNobody(const std::function<bool()> &fn)
{
    const pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            _exit(2);
        _exit(fn() ? 0 : 1);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    switch (WEXITSTATUS(status)) {
    case 0:
        return 1;
    case 1:
        return 0;
    default:
        return -1;
    }
}
