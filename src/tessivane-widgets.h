// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

// Small pieces every dock builder shares: the one style sheet and the label constructors that
// give widgets the object names the sheet selects on.

#include <QtGlobal>

class QJsonArray;
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

// What a dock shows of one reply is bounded, at limits that no real account comes near, so that no
// reply within the client's 4 MB holds OBS's UI thread for long: a channel's card costs about
// 0.3 ms, 20,000 of them minutes.
// The records of one reply that stand one per channel (cards, chat targets, statistics, the
// results of a save): an account has a few dozen channels at most.
inline constexpr qsizetype mostChannels = 50;
// The newest chat messages shown: twice the development service's busy feed.
inline constexpr qsizetype mostChatRows = 1000;
// The suggestions of one category search; the platforms' own searches give 25 to 100.
inline constexpr qsizetype mostSuggestions = 100;
// A text in a label or a row: beyond a kilobyte nothing is readable in a dock, a text laid out
// millions of pixels high breaks Qt's painting, and no row grows taller than its dock. Qt 6.11
// reads a colour emoji's bitmap each time it lays one out (55 us), so a label of a thousand of
// them already costs a layout pass 30 ms.
inline constexpr qsizetype longestText = 1024;
inline constexpr int mostLines = 5;
// A field of the stream information, which the platforms keep to a few thousand characters.
inline constexpr qsizetype longestField = 65536;

// The first `lines` lines of a text (all of them when not positive), of `longest` characters at
// most, with an ellipsis where it was cut between two characters.
QString cutText(const QString &text, qsizetype longest = longestText, int lines = mostLines);
// At most `most` elements of an array: its first ones, or with `newest` its last.
QJsonArray partOf(const QJsonArray &array, qsizetype most, bool newest = false);
// A text from the service as a label shows it: cut, and free to wrap inside a long word,
// between two of its characters as a reader sees them.
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
