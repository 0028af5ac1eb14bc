/*
** live_update_bench.cpp -- from saving a file to seeing it in a tab's search results, through
** the application's model (DirectoryState with its directory watcher), without pressing anything.
**
**   live_update_bench [--files N | --tree DIR] [--runs R] [--settle MS]
**
** Makes a tree of N small text files (default 20,000), opens it as a tab and indexes it once;
** --tree takes the tree update_bench --keep left instead (indexed with the untrained encoder).
** Then, R times (default 3): one file is rewritten with a word found nowhere else, and the clock
** runs until a text search of the tab shows that file. The watcher waits --settle milliseconds of
** quiet first (the application's 2000 by default), then the update reads and embeds the file.
** Beside it, measured in the same run: the embedding of that file's text alone. Settings and the
** index live in temporary directories removed at the end. Run with OPENBLAS_NUM_THREADS=1 on a
** shared machine.
*/
#include "common.h"
#include "directory_state.h"
#include "encoder_record.h"
#include "settings.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace
{

QByteArray fileText(int i)
{
    return QByteArray("Note ") + QByteArray::number(i) + " : the harbour master logs boat "
           + QByteArray::number(i * 7 % 1000) + " at the north quay.\n";
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        file.write(bytes);
    }
}

// Runs the event loop until done() holds or timeoutMs passed; false on the timeout.
template <typename F>
bool waitFor(F done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    int files = 20000;
    int runs = 3;
    int settle = 2000;
    QString given;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--tree") == 0) {
            given = QString::fromLocal8Bit(argv[i + 1]);
        }
        if (std::strcmp(argv[i], "--files") == 0) {
            files = std::atoi(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--runs") == 0) {
            runs = std::atoi(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--settle") == 0) {
            settle = std::atoi(argv[i + 1]);
        }
    }
    QTemporaryDir home;
    QTemporaryDir tree;
    qputenv("HOME", QFile::encodeName(home.path()));
    Settings settings(
        new QSettings(home.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat));
    settings.setValue(QStringLiteral("watchSettleMs"), settle);
    setEngineVerbose(false);
    const QString root = given.isEmpty() ? tree.path() : given;
    for (int i = 0; given.isEmpty() && i < files; i++) {
        const QString dir = tree.filePath(QStringLiteral("d%1").arg(i / 100));
        if (i % 100 == 0) {
            QDir().mkpath(dir);
        }
        writeFile(dir + QStringLiteral("/f%1.txt").arg(i), fileText(i));
    }

    DirectoryTab tab;
    tab.path = root;
    if (!given.isEmpty()) {
        EncoderRecord::write(root, QString()); // update_bench's encoder: the untrained one
    }
    tab.name = QStringLiteral("tree");
    DirectoryState state(tab, nullptr, &settings); // the untrained encoder
    QElapsedTimer clock;
    clock.start();
    state.ingest(800, 200);
    if (!waitFor(
            [&state] {
                return !state.isIngesting();
            },
            3600000)) {
        std::fprintf(stderr, "first indexing did not finish\n");
        return 1;
    }
    std::printf("tree: %s; first indexing (an update) %.1f s; watching: %s\n\n",
                qPrintable(root),
                clock.elapsed() / 1000.0,
                state.isWatching() ? "yes" : "no");

    std::vector<double> seen, embedOnly;
    for (int r = 0; r < runs; r++) {
        const QByteArray word = QByteArray("quokka") + QByteArray::number(r);
        const QByteArray text = fileText(300 + r) + "Seen a " + word + " today.\n";
        const QString path = root + QStringLiteral("/d3/f%1.txt").arg(300 + r);
        // Let the previous round's writes settle before the clock starts.
        waitFor(
            [] {
                return false;
            },
            300);
        clock.restart();
        writeFile(path, text);
        bool found = waitFor(
            [&state, &word, &path] {
                if (state.isIngesting()) {
                    return false;
                }
                for (const SearchResult &hit :
                     state.engine()->search(QString::fromUtf8(word), SearchMode::Text, 10)) {
                    if (hit.filePath == path) {
                        return true;
                    }
                }
                return false;
            },
            60000);
        if (!found) {
            std::fprintf(stderr, "the edit never reached the results\n");
            return 1;
        }
        seen.push_back(clock.elapsed() / 1000.0);

        TrnEncoder *enc = trn_encoder_init(42);
        float v[TRN_ENCODER_DIM];
        clock.restart();
        trn_encoder_embed_text(enc, text.constData(), v);
        embedOnly.push_back(clock.nsecsElapsed() / 1e9);
        trn_encoder_free(enc);
    }
    std::printf("| %-38s | %8s | %8s | %8s |\n", "seconds", "median", "min", "max");
    std::printf("|----------------------------------------|----------|----------|----------|\n");
    auto row = [](const char *name, const std::vector<double> &v) {
        std::printf("| %-38s | %8.3f | %8.3f | %8.3f |\n",
                    name,
                    bench::median(v),
                    *std::min_element(v.begin(), v.end()),
                    *std::max_element(v.begin(), v.end()));
    };
    row("save to search result (settle included)", seen);
    row("embed that file alone", embedOnly);
    std::printf("\nsettle time: %.1f s of the first row\n", settle / 1000.0);
    return 0;
}
