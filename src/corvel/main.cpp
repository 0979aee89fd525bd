// SPDX-License-Identifier: GPL-3.0-or-later
// Corvel's entry point: the tray program, or with --headless (or without a display) the same
// controller, discovery and bridge without any window.
#include "AirConnect.h"
#include "BuildConfig.h"
#include "Controller.h"
#include "CrashPrompt.h"
#include "DeviceDiscovery.h"
#include "Log.h"
#include "Logging.h"
#include "NotificationCenter.h"
#include "Notifications.h"
#include "Platform.h"
#include "Settings.h"
#include "SingleInstance.h"
#include "SpeakerCommands.h"
#include "StartMode.h"
#include "Translations.h"
#include "WindowFactory.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <QApplication>
#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QSocketNotifier>
#include <QSystemTrayIcon>
#include <QTimer>
#include <unistd.h>

namespace {
int g_signalPipe[2] = {-1, -1};

void onQuitSignal(int)
{
    const char byte = 'q';
    [[maybe_unused]] const ssize_t written = ::write(g_signalPipe[1], &byte, sizeof byte);
}

// SIGINT and SIGTERM reach the event loop through a pipe, so quitting stops the bridge.
void quitOnSignals(QCoreApplication &app)
{
    if (::pipe2(g_signalPipe, O_CLOEXEC) != 0)
        return;
    auto *notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [&app] {
        char byte; // what was sent does not matter
        [[maybe_unused]] const ssize_t read = ::read(g_signalPipe[0], &byte, sizeof byte);
        app.quit();
    });
    struct sigaction action
    {
    };
    action.sa_handler = onQuitSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// --list with no Corvel running: one search, whose speakers are saved, so that the other
// commands can name them. The bridge is not started.
int listSpeakers(QCoreApplication &app)
{
    Settings &settings = Settings::shared();
    NotificationCenter::defaultCenter().addObserver(
        Notifications::deviceDiscovered, [&settings](const Notification &n) {
            if (const auto speaker = discoveredSpeaker(n))
                settings.mergeDiscoveredSpeaker(speaker->first, speaker->second);
        });
    NotificationCenter::defaultCenter().addObserver(
        Notifications::discoveryComplete, [&app](const Notification &) {
            // Descriptions still on their way get a moment to arrive.
            QTimer::singleShot(listGraceMs, &app, &QCoreApplication::quit);
        });
    DeviceDiscovery::shared().searchForDevices(DeviceDiscovery::defaultSearchSeconds);
    app.exec();
    settings.save();
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    // Decided before the application object exists, since it fixes the platform plugin.
    const StartMode mode = startModeFor(QByteArrayList(argv, argv + argc));
    const bool headless = mode.headless;
    if (headless)
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // The log exists before anything can log, Qt and the settings included.
    Logging::setDefaultLevel(LogLevel::Verbose);
    Logging::attach(&Log::shared());
    // Help and version print their text and exit: Qt's own start-up remarks (no runtime folder
    // on a bare server, say) would only get in their way.
    if (mode.printsOnly)
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    else
        Logging::installQtMessageHandler();

    QApplication app(argc, argv);
    initCorvelResources();
    QApplication::setApplicationName(QStringLiteral("Corvel"));
    QApplication::setOrganizationName(QStringLiteral("Corvel"));
    QApplication::setApplicationVersion(QStringLiteral(CORVEL_VERSION));
    QApplication::setDesktopFileName(QStringLiteral(CORVEL_APP_ID));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/icons/org.corvel.Corvel.svg")));
    Translations::install();

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QCoreApplication::translate("main", "Plays this computer's audio on Sonos speakers."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption headlessOption(
        QStringLiteral("headless"),
        QCoreApplication::translate("main", "Run without a tray icon or windows (for servers)."));
    const QCommandLineOption autostartOption(
        QStringLiteral("autostart"),
        QCoreApplication::translate("main", "Started at login: wait for the desktop's tray."));
    const QCommandLineOption listOption(
        QStringLiteral("list"),
        QCoreApplication::translate("main",
                                    "Search for speakers, then list the known ones and exit."));
    const QCommandLineOption enableOption(
        QStringLiteral("enable"),
        QCoreApplication::translate("main", "Offer the speaker (location or name) and exit."),
        QCoreApplication::translate("main", "speaker"));
    const QCommandLineOption disableOption(
        QStringLiteral("disable"),
        QCoreApplication::translate("main",
                                    "Stop offering the speaker (location or name) and exit."),
        QCoreApplication::translate("main", "speaker"));
    const QCommandLineOption renameOption(
        QStringLiteral("rename"),
        QCoreApplication::translate(
            "main", "Rename the speaker (location or name) to the next argument and exit."),
        QCoreApplication::translate("main", "speaker"));
    parser.addOptions(
        {headlessOption, autostartOption, listOption, enableOption, disableOption, renameOption});
    parser.addPositionalArgument(
        QCoreApplication::translate("main", "name"),
        QCoreApplication::translate("main", "The new name, with --rename."),
        QCoreApplication::translate("main", "[name]"));
    parser.process(app);
    // Only --rename takes a word of its own: anything else is a mistake, not a start.
    if (!parser.isSet(renameOption) && !parser.positionalArguments().isEmpty()) {
        std::fprintf(stderr, "%s\n",
                     qPrintable(QCoreApplication::translate(
                                    "main", "Unknown argument \"%1\" (see corvel --help)")
                                    .arg(parser.positionalArguments().constFirst())));
        return 2;
    }

    // The long-lived services, destroyed in reverse order before the application object.
    DeviceDiscovery discovery;
    AirConnect bridge;

    // The speaker commands go to the running Corvel, so that they apply at once; with none
    // running they work on the stored settings.
    if (parser.isSet(listOption) || parser.isSet(enableOption) || parser.isSet(disableOption) ||
        parser.isSet(renameOption)) {
        Logging::setDefaultLevel(parser.isSet(listOption) ? LogLevel::Warning : LogLevel::Info);
        if (parser.isSet(renameOption) && parser.positionalArguments().size() != 1) {
            std::fprintf(stderr, "%s\n",
                         qPrintable(QCoreApplication::translate(
                             "main", "--rename needs the new name after the speaker")));
            return 2;
        }
        const QString newName = parser.positionalArguments().value(0);
        // --enable and --disable are one command with a flag.
        const bool enable = parser.isSet(enableOption);
        const QString speaker = parser.value(enable                        ? enableOption
                                             : parser.isSet(disableOption) ? disableOption
                                                                           : renameOption);
        QString method = QStringLiteral("Rename");
        QVariantList arguments{speaker, newName};
        if (parser.isSet(listOption))
            method = QStringLiteral("List"), arguments.clear();
        else if (enable || parser.isSet(disableOption))
            method = QStringLiteral("SetEnabled"), arguments = {speaker, enable};
        SingleInstance::Answer answer;
        if (const auto running = SingleInstance::ask(method, arguments)) {
            answer = *running;
        } else if (parser.isSet(listOption)) {
            answer.status = listSpeakers(app);
            answer.output = SpeakerCommands::formatList(Settings::shared());
        } else if (method == QLatin1String("SetEnabled")) {
            answer.status =
                SpeakerCommands::setEnabled(Settings::shared(), speaker, enable, &answer.error);
        } else {
            answer.status =
                SpeakerCommands::rename(Settings::shared(), speaker, newName, &answer.error);
        }
        std::fputs(qPrintable(answer.output), stdout);
        if (!answer.error.isEmpty())
            std::fprintf(stderr, "%s\n", qPrintable(answer.error));
        return answer.status;
    }

    const Platform platform = Platform::system();
    Controller controller(AppServices::real(), platform, !headless);
    // One Corvel per user: a second start brings the first one's preferences forward.
    SingleInstance instance(Settings::shared(), [&controller] { controller.showPreferences(); });
    if (instance.claim() == SingleInstance::Claim::OtherRunning) {
        std::fprintf(stderr, "%s\n",
                     qPrintable(QCoreApplication::translate("main", "Corvel is already running.")));
        SingleInstance::ask(QStringLiteral("ShowPreferences"));
        return 0;
    }
    logInfo(QStringLiteral("applicationWillFinishLaunching"));
    if (!headless)
        installCrashPrompts(CrashReporter::shared());
    controller.startCrashReporting();
    if (mode.noDisplay && !parser.isSet(headlessOption))
        logInfo(QStringLiteral(
            "No display found (neither DISPLAY nor WAYLAND_DISPLAY): running headless"));

    quitOnSignals(app);
    QObject::connect(&controller, &Controller::quitRequested, &app, &QCoreApplication::quit);
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &controller, &Controller::shutdown);

    // Windows only where there is a screen; they go before the controller they ask.
    std::unique_ptr<WindowFactory> windows;
    if (!headless) {
        windows = std::make_unique<WindowFactory>(controller, platform);
        controller.setWindows(windows.get());
    }
    const auto launch = [&controller, headless] {
        const bool noTray = !headless && !QSystemTrayIcon::isSystemTrayAvailable();
        controller.setNoTray(noTray);
        if (noTray) {
            logWarning(QStringLiteral(
                "No system tray was found, so Corvel opens its preferences window instead of a "
                "tray icon; closing it quits Corvel. On GNOME, install and enable the "
                "AppIndicator extension (Debian package gnome-shell-extension-appindicator); "
                "other desktops need a panel with a system tray."));
        }
        controller.start();
        if (noTray)
            controller.showPreferences();
    };
    std::function<void()> ask; // lives as long as the loop that calls it
    if (!headless && parser.isSet(autostartOption)) {
        // Qt decides once per process whether a tray exists, and desktops start their panel
        // late at login: wait until a tray host is registered (or an XEmbed tray runs) before
        // creating the icon, asking every half second without blocking the loop. A session
        // with no tray at all gets the window after two minutes.
        QElapsedTimer waited;
        waited.start();
        // Each answer asks again only after it, so one of them launches.
        ask = [&app, &ask, waited, launch] {
            Platform::whenTrayHostRegistered([&app, &ask, waited, launch](bool found) {
                if (found || waited.hasExpired(maxTrayWaitMs)) {
                    launch();
                    return;
                }
                QTimer::singleShot(trayPollMs, &app, ask);
            });
        };
        ask();
    } else {
        launch();
    }
    return app.exec();
}
