// SPDX-License-Identifier: GPL-3.0-or-later
// The crash prompt and the save dialog for reports, given to the crash reporter of a run
// with windows.
#pragma once

class CrashReporter;

// Sets reporter's prompt (send, save or keep for later) and its save dialog.
void installCrashPrompts(CrashReporter &reporter);
