// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

// Small pieces every dock builder shares: the one style sheet and the label constructors that
// give widgets the object names the sheet selects on.

class QLabel;
class QString;
class QVBoxLayout;
class QWidget;

extern const char tessivaneStyleSheet[];

// Gives a parentless root the name and the sheet that all five panels share.
QWidget *makeRoot();
// The root's column, with the margins on all four sides and the spacing each panel asks for. It
// stands in a scroll area that fills the root: a dock shorter than its panel scrolls.
QVBoxLayout *rootLayout(QWidget *root, int margin, int spacing);
QLabel *heading(const QString &text, QWidget *parent);
QLabel *muted(const QString &text, QWidget *parent);
