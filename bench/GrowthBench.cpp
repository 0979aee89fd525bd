// SPDX-License-Identifier: GPL-3.0-or-later
// How discovery's cost grows with the household, against a floor: for N simulated players
// (a separate process, every player answering at once, N/4 groups), the time from the last
// SSDP answer to every player described and listed by the controller, headless and with the
// preferences window open, and the CPU this process spent per player; the floor is a plain
// client doing the same 2N fetches (description and topology), 32 at once, parsing nothing.
// Medians of several runs. Run it through scripts/netns (scripts/bench).
//   corvel-bench-growth PLAYERS [RUNS]
#include "BenchFigures.h"
#include "BenchSimulator.h"
#include "Controller.h"
#include "DeviceDiscovery.h"
#include "Notifications.h"
#include "PreferencesWindow.h"
#include "Settings.h"

#include <arpa/inet.h>
#include <cstdio>
#include <ctime>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <QApplication>
#include <QProcess>
#include <QTimer>
#include <sys/socket.h>
#include <unistd.h>

namespace {

double cpuMs()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

// The floor: GET every URL over its own connection, at most inFlight at once, reading each
// answer to its end; nothing is parsed. Returns the milliseconds it took.
double floorFetch(const std::vector<QUrl> &urls, int inFlight)
{
    struct Transfer
    {
        int fd;
        QByteArray request;
        qsizetype sent = 0;
    };
    const qint64 start = monotonicNanoseconds();
    size_t next = 0;
    std::vector<Transfer> open;
    const auto begin = [&](const QUrl &url) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(quint16(url.port(80)));
        inet_pton(AF_INET, url.host().toLatin1().constData(), &address.sin_addr);
        ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
        open.push_back({fd, "GET " + url.path().toLatin1() + " HTTP/1.1\r\nHost: " +
                                url.host().toLatin1() + "\r\nConnection: close\r\n\r\n"});
    };
    char buffer[65536];
    while (next < urls.size() || !open.empty()) {
        while (next < urls.size() && int(open.size()) < inFlight)
            begin(urls[next++]);
        std::vector<pollfd> fds;
        for (const Transfer &t : open)
            fds.push_back({t.fd, short(t.sent < t.request.size() ? POLLOUT : POLLIN), 0});
        ::poll(fds.data(), fds.size(), 5000);
        for (size_t i = fds.size(); i-- > 0;) {
            Transfer &t = open[i];
            if (fds[i].revents & POLLOUT) {
                const ssize_t n = ::send(t.fd, t.request.constData() + t.sent,
                                         size_t(t.request.size() - t.sent), MSG_NOSIGNAL);
                t.sent += n > 0 ? n : 0;
            } else if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) {
                ssize_t n;
                while ((n = ::recv(t.fd, buffer, sizeof buffer, 0)) > 0) {
                }
                if (n == 0 || (n < 0 && errno != EAGAIN)) {
                    ::close(t.fd);
                    open.erase(open.begin() + qsizetype(i));
                }
            }
        }
    }
    return double(monotonicNanoseconds() - start) / 1e6;
}
} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const int players = argc > 1 ? std::max(1, atoi(argv[1])) : 64;
    const int runs = argc > 2 ? std::max(1, atoi(argv[2])) : 7;

    QProcess simulator;
    const auto locations = startSimulator(simulator, players, 20000);
    if (!locations)
        return 1;
    std::vector<QUrl> fetches;
    for (const auto &[index, location] : *locations) {
        fetches.push_back(location);
        fetches.push_back(location.resolved(QUrl(QStringLiteral("/status/topology"))));
    }
    // The last answer to the search's first M-SEARCH (the players answer its repeat, a
    // second later, too, which starts no new work).
    const auto lastAnswer = [&simulator, players] {
        qint64 last = 0;
        int answers = 0;
        while (simulator.canReadLine() || simulator.waitForReadyRead(50)) {
            const QList<QByteArray> parts = simulator.readLine().trimmed().split(' ');
            if (parts.value(0) == "answer" && answers++ < players)
                last = std::max(last, parts.value(2).toLongLong());
        }
        return last;
    };

    std::vector<double> floor, headless, window, cpuPerPlayer;
    for (int run = 0; run < runs; ++run)
        floor.push_back(floorFetch(fetches, DeviceDiscovery::maxPipelinesInFlight));
    for (const bool withWindow : {false, true}) {
        for (int run = 0; run < runs; ++run) {
            // A first run of Corvel: no speaker known, nothing saved, no bridge started.
            Settings::replaceShared(Settings::load(std::make_unique<MemorySettingsStorage>()));
            DeviceDiscovery discovery;
            AppServices services = AppServices::real();
            services.startBridge = [](const std::vector<DeviceSettings> &, const BridgeOptions &) {
            };
            services.watch = [](bool) {
            };
            const Platform platform = Platform::system();
            Controller controller(services, platform, false);
            std::unique_ptr<PreferencesWindow> preferences;
            if (withWindow) {
                preferences = std::make_unique<PreferencesWindow>(controller, platform);
                preferences->show();
            }
            qint64 listedAt = 0;
            int described = 0;
            const auto token = NotificationCenter::defaultCenter().addObserver(
                Notifications::deviceDiscovered, [&](const Notification &) {
                    if (++described < players)
                        return;
                    // Listed: after the menu and window updates queued so far.
                    QTimer::singleShot(0, &app, [&] {
                        listedAt = monotonicNanoseconds();
                        app.quit();
                    });
                });
            QTimer::singleShot(30000, &app, &QCoreApplication::quit);
            const double cpuBefore = cpuMs();
            controller.start();
            app.exec();
            const double cpu = cpuMs() - cpuBefore;
            NotificationCenter::defaultCenter().removeObserver(token);
            discovery.stopSearching();
            const qint64 answered = lastAnswer();
            if (described < players || controller.tray().speakerItems().size() != players) {
                std::fprintf(stderr, "Only %d of %d players described\n", described, players);
                return 1;
            }
            (withWindow ? window : headless).push_back(double(listedAt - answered) / 1e6);
            if (!withWindow)
                cpuPerPlayer.push_back(cpu / players);
        }
    }
    simulator.kill();
    simulator.waitForFinished();
    const double f = percentile(floor, 0.5), h = percentile(headless, 0.5),
                 w = percentile(window, 0.5);
    std::printf("| %d | %.0f ms | %.0f ms (%.2f×) | %.0f ms (%.2f×) | %.2f ms | %.1f |\n", players,
                f, h, h / f, w, w / f, percentile(cpuPerPlayer, 0.5), peakMiB());
    return 0;
}
