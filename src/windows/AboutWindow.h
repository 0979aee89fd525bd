// SPDX-License-Identifier: GPL-3.0-or-later
// The About window: version, licence, where Corvel comes from, and the version details a
// bug report needs, with a button that copies them.
#pragma once

#include <QWidget>

class AboutWindow : public QWidget
{
    Q_OBJECT

public:
    explicit AboutWindow(QWidget *parent = nullptr);

    // The version, Qt version and desktop session, as copied for a bug report.
    static QString versionInfo();
};
