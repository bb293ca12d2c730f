// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

// Small pieces every dock builder shares: the one style sheet and the label constructors that
// give widgets the object names the sheet selects on.

class QLabel;
class QString;
class QWidget;

extern const char tessivaneStyleSheet[];

// Gives a parentless root the name and the sheet that all five panels share.
QWidget *makeRoot();
QLabel *heading(const QString &text, QWidget *parent);
QLabel *muted(const QString &text, QWidget *parent);
