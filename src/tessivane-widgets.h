// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

// Small pieces every dock builder shares: the one style sheet and the label constructors that
// give widgets the object names the sheet selects on.

class QLabel;
class QScrollArea;
class QString;
class QVBoxLayout;
class QWidget;

extern const char tessivaneStyleSheet[];

// The least height of what scrolls in a dock (a form, the channel list, the chat feed), about one
// row: five docks stacked in OBS's default window then all fit, with what must stay in view.
inline constexpr int shortestScroll = 24;

// Gives a parentless root the name and the sheet that all five panels share.
QWidget *makeRoot();
// The root's column, with the margins on all four sides and the spacing each panel asks for.
QVBoxLayout *rootLayout(QWidget *root, int margin, int spacing);
// The same column inside a scroll area that fills the root: a form dock shorter than its panel
// scrolls, never sideways.
QVBoxLayout *scrollingRootLayout(QWidget *root, int margin, int spacing);
// Lets the root's look show through a scroll area, keeps it out of the focus chain, and scrolls to
// whatever control inside it takes the focus, also from a Tab that began outside it.
void showThrough(QScrollArea *scroll);
QLabel *heading(const QString &text, QWidget *parent);
QLabel *muted(const QString &text, QWidget *parent);
// A text from the service as a label shows it: cut after 4096 characters, and free to wrap
// inside a long word, between two of its characters as a reader sees them.
QString shownText(const QString &text);
// A text from the service or a viewer that stands on one line of a row or label: its line breaks
// become blanks, so that it cannot pass for further rows, and its direction overrides and
// isolates go, so that it cannot turn the rest of the row around.
QString oneLine(QString text);

// Tells a screen reader the result of what the streamer just did, as if read from `source`:
// politely, or at once for a failure. Polls and replies nobody asked for are never told.
void announce(QWidget *source, const QString &text, bool failure = false);
// Enables or disables a control that may hold the focus. Qt hands the focus of a disabled control
// to the next one in the chain, which may be an action (Sign Out): here it waits on `holder`, a
// widget that does nothing when keys are pressed, and goes back once the control is enabled again.
void setEnabledKeepingFocus(QWidget *control, bool enabled, QWidget *holder);
// A platform's name as a streamer writes it, from its provider word; an unknown word as it came.
QString platformName(const QString &providerKey);
