// SPDX-License-Identifier: GPL-3.0-or-later
#include "AboutWindow.h"

#include "BuildConfig.h"
#include "Settings.h"

#include <QClipboard>
#include <QDialogButtonBox>
#include <QGuiApplication>
#include <QIcon>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

AboutWindow::AboutWindow(QWidget *parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("aboutWindow"));
    setWindowTitle(tr("About Corvel"));
    auto *layout = new QVBoxLayout(this);
    auto *icon = new QLabel(this);
    icon->setObjectName(QStringLiteral("iconLabel"));
    icon->setPixmap(QIcon(QStringLiteral(":/icons/org.corvel.Corvel.svg")).pixmap(64));
    icon->setAlignment(Qt::AlignHCenter);
    layout->addWidget(icon);
    auto *text = new QLabel(this);
    text->setObjectName(QStringLiteral("aboutLabel"));
    text->setTextFormat(Qt::RichText);
    text->setOpenExternalLinks(true);
    text->setTextInteractionFlags(Qt::TextBrowserInteraction);
    text->setWordWrap(true);
    text->setAlignment(Qt::AlignHCenter);
    // A build with no address of its own (the reserved .invalid domain) shows none.
    const auto configured = [](const QString &value) {
        return !value.isEmpty() && !value.contains(QLatin1String(".invalid"));
    };
    const auto link = [](const QString &url, const QString &label) {
        return QStringLiteral("<a href=\"%1\">%2</a>")
            .arg(url.toHtmlEscaped(), label.toHtmlEscaped());
    };
    const QString website = QStringLiteral(CORVEL_WEBSITE);
    const QString social = QStringLiteral(CORVEL_SOCIAL);
    const QString authorUrl = QStringLiteral(CORVEL_AUTHOR_URL);
    const QString author = QStringLiteral(CORVEL_AUTHOR);
    // The version is in the lines below, once; links carry names, not addresses that would
    // break across lines.
    QString html = QStringLiteral("<h3>Corvel</h3><p>") +
                   tr("Plays this computer's sound on Sonos speakers, and offers them to phones "
                      "and other computers through the AirConnect bridge.") +
                   QStringLiteral("</p>");
    QStringList where;
    if (configured(website))
        where << link(website, tr("Website"));
    if (configured(social))
        where << social.toHtmlEscaped();
    if (!where.isEmpty())
        html += QStringLiteral("<p>") + where.join(QStringLiteral("<br>")) + QStringLiteral("</p>");
    html += QStringLiteral("<p>") +
            tr("Created by %1")
                .arg(configured(authorUrl) ? link(authorUrl, author) : author.toHtmlEscaped()) +
            QStringLiteral("</p><p>") +
            tr("Corvel is free software: you may redistribute and modify it under the %1, "
               "version 3 or (at your option) any later version. It comes with no warranty.")
                .arg(link(QStringLiteral("https://www.gnu.org/licenses/gpl-3.0.html"),
                          tr("GNU General Public License"))) +
            QStringLiteral("</p>");
    text->setText(html);
    layout->addWidget(text);
    auto *info = new QLabel(versionInfo(), this);
    info->setObjectName(QStringLiteral("versionInfoLabel"));
    info->setTextInteractionFlags(Qt::TextSelectableByMouse);
    info->setAlignment(Qt::AlignHCenter);
    layout->addWidget(info);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    QPushButton *copy = buttons->addButton(tr("&Copy Version Info"), QDialogButtonBox::ActionRole);
    copy->setObjectName(QStringLiteral("copyVersionInfoPushButton"));
    connect(copy, &QPushButton::clicked, this,
            [] { QGuiApplication::clipboard()->setText(versionInfo()); });
    connect(buttons, &QDialogButtonBox::rejected, this, &QWidget::close);
    layout->addWidget(buttons);
    setMinimumWidth(420);
}

QString AboutWindow::versionInfo()
{
    const QString session =
        qEnvironmentVariable("XDG_CURRENT_DESKTOP", qEnvironmentVariable("DESKTOP_SESSION"));
    return QStringLiteral("Corvel %1\nQt %2 (%3)\nDesktop: %4 (%5)")
        .arg(Settings::currentVersion(), QString::fromLatin1(qVersion()),
             QGuiApplication::platformName(),
             session.isEmpty() ? QStringLiteral("unknown") : session,
             qEnvironmentVariable("XDG_SESSION_TYPE", QStringLiteral("unknown session type")));
}
