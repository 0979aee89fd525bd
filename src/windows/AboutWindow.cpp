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
    icon->setPixmap(QIcon(QStringLiteral(":/icons/org.corvel.Corvel.svg")).pixmap(64, 64));
    icon->setAlignment(Qt::AlignHCenter);
    layout->addWidget(icon);
    auto *text = new QLabel(this);
    text->setObjectName(QStringLiteral("aboutLabel"));
    text->setTextFormat(Qt::RichText);
    text->setOpenExternalLinks(true);
    text->setTextInteractionFlags(Qt::TextBrowserInteraction);
    text->setWordWrap(true);
    text->setAlignment(Qt::AlignHCenter);
    const auto link = [](const QString &url) {
        return QStringLiteral("<a href=\"%1\">%1</a>").arg(url.toHtmlEscaped());
    };
    text->setText(tr("<h3>Corvel %1</h3><p>Plays this computer's sound on Sonos speakers "
                     "through the AirConnect bridge.</p><p>%2<br>%3</p>"
                     "<p>Created by %4 (%5)</p><p>Corvel is free software: you may "
                     "redistribute and modify it under the GNU General Public License, "
                     "version 3 or (at your option) any later version. It comes with no "
                     "warranty. See %6.</p>")
                      .arg(Settings::currentVersion(), link(QStringLiteral(CORVEL_WEBSITE)),
                           link(QStringLiteral(CORVEL_SOCIAL)),
                           QStringLiteral(CORVEL_AUTHOR).toHtmlEscaped(),
                           link(QStringLiteral(CORVEL_AUTHOR_URL)),
                           link(QStringLiteral("https://www.gnu.org/licenses/gpl-3.0.html"))));
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
