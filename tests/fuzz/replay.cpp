// SPDX-License-Identifier: GPL-2.0-or-later
// Replays inputs of the reply fuzzer, files or folders of them in the order given, and tells what
// the slowest cost the UI thread, beside each input whose name says it is a reference.
//   fuzz-replies tests/fuzz/corpus
#include <QDir>
#include <QFile>

#include <algorithm>
#include <cstdio>
#include <utility>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern double fuzzRepliesUiMs;
// Takes the docks and the application down, so that what is left at the end is a leak.
void fuzzRepliesFinish();

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    QList<std::pair<double, QString>> times;
    for (int i = 1; i < argc; ++i) {
        const QString path = QString::fromLocal8Bit(argv[i]);
        QStringList files{path};
        if (QFileInfo(path).isDir()) {
            files.clear();
            const QDir folder(path);
            for (const QString &name : folder.entryList(QDir::Files, QDir::Name))
                files << folder.filePath(name);
        }
        for (const QString &file : std::as_const(files)) {
            QFile input(file);
            if (!input.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "cannot read %s\n", qPrintable(file));
                return 1;
            }
            const QByteArray bytes = input.readAll();
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.constData()),
                                   size_t(bytes.size()));
            times.append({fuzzRepliesUiMs, file});
        }
    }
    std::printf("%lld inputs replayed; UI thread time of the slowest, and of the references:\n",
                static_cast<long long>(times.size()));
    std::sort(times.begin(), times.end(), std::greater<>());
    for (qsizetype i = 0; i < times.size(); ++i)
        if (i < 10 || times[i].second.contains(QLatin1String("reference")))
            std::printf("%9.2f ms  %s\n", times[i].first, qPrintable(times[i].second));
    fuzzRepliesFinish();
    return 0;
}
