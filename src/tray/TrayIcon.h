// SPDX-License-Identifier: GPL-3.0-or-later
// The tray icon's looks, one per kind of state, readable on light and dark panels alike.
#pragma once

#include <QIcon>

enum class TrayLook { Idle, Busy, Running, Problem };

// The speaker glyph, light with a dark outline so that either panel shows it, with a badge:
// none when idle, an amber ring while busy, a green dot when running, a red "!" on a problem.
QIcon trayIcon(TrayLook look);

// Registers the icons compiled into this library (the tray's, the application's); safe to
// call more than once.
void initCorvelResources();
