/*
** model_commands.cpp -- prompt and train on the application's model, and the application's
** settings and encoder for the other commands.
**
** The walk settings ("extraExtensions", "excludePatterns", "maxFileSizeMB") and the chunking
** ("chunkSize", "overlap") are the application's unless the command line says otherwise. The same
** QSettings ("Tarnwick"/"Tarnwick") and training profiles as the application's are read and
** written, so a profile trained here is the application's too.
**
** `train NAME` runs TrainingManager's run in this process's event loop; SIGINT reaches that
** loop through a pipe (the handler only writes one byte) and cancels the run.
*/
#include "model_commands.h"

#include "common.h"
#include "json.h"

#include "encoder_record.h"
#include "index_handle.h"
#include "json_coding.h"
#include "prompt_builder.h"
#include "records.h"
#include "settings.h"
#include "training_manager.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QObject>
#include <QSet>
#include <QSocketNotifier>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace
{

// Qt's warnings (poppler's among them) as one prefixed line each; debug chatter is dropped.
void print_qt_message(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtDebugMsg || type == QtInfoMsg) {
        return;
    }
    std::fprintf(stderr, "tarnwick: %s\n", message.toLocal8Bit().constData());
}

QString path_text(const std::string &path)
{
    return QFile::decodeName(path.c_str());
}

std::string path_bytes(const QString &path)
{
    return QFile::encodeName(path).toStdString();
}

std::string utf8(const QString &text)
{
    return text.toUtf8().toStdString();
}

// text in double quotes, made fit for a terminal.
std::string quoted(const std::string &text)
{
    std::string out(1, '"');
    out += display_text(text, false);
    out += '"';
    return out;
}

// --- index ------------------------------------------------------------------------------------

// --- train ------------------------------------------------------------------------------------

const char *const TRAIN_WORDS[] = {"profiles", "add", "default"};

// The profile called name, or whose id is name. Several of that name are an error: the
// application allows them, so the id tells them apart.
TrainingProfile find_profile(const TrainingManager &manager, const std::string &name)
{
    const QString wanted = QString::fromUtf8(name);
    std::vector<TrainingProfile> named;
    for (const TrainingProfile &p : manager.profiles()) {
        if (p.name == wanted) {
            named.push_back(p);
        }
    }
    if (named.size() > 1) {
        throw Failure("several profiles are named \"" + name + "\"; give the id of one");
    }
    if (named.size() == 1) {
        return named[0];
    }
    std::optional<TrainingProfile> by_id = manager.profile(JsonCoding::uuidFromText(wanted));
    if (!by_id) {
        throw Failure("no training profile named \"" + name
                      + "\" (see: tarnwick-cli train profiles)");
    }
    return *by_id;
}

std::string last_trained_text(const TrainingProfile &p)
{
    if (!p.lastTrained) {
        return "never";
    }
    return utf8(p.lastTrained->toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm")));
}

void list_profiles(const Options &o, TrainingManager *manager)
{
    const QList<TrainingProfile> profiles = manager->profiles();
    const QUuid default_id = manager->defaultProfileId();
    if (o.json) {
        JsonWriter w;
        w.begin_array();
        for (const TrainingProfile &p : profiles) {
            w.begin_object();
            w.key("id");
            w.string(utf8(JsonCoding::uuidText(p.id)));
            w.key("name");
            w.string(utf8(p.name));
            w.key("status");
            w.string(utf8(trainingStatusText(p.status)));
            w.key("lastTrained");
            if (p.lastTrained) {
                w.string(utf8(p.lastTrained->toUTC().toString(Qt::ISODate)));
            } else {
                w.null();
            }
            w.key("weightsPath");
            w.string(path_bytes(p.weightsPath));
            w.key("isDefault");
            w.boolean(p.id == default_id);
            w.key("sourceDirectories");
            w.begin_array();
            for (const QString &dir : p.sourceDirectories) {
                w.string(path_bytes(dir));
            }
            w.end_array();
            w.key("steps");
            w.integer(p.steps);
            w.key("batchSize");
            w.integer(p.batchSize);
            w.key("learningRate");
            w.number(p.learningRate);
            w.key("heads");
            w.integer(p.heads);
            w.key("layers");
            w.integer(p.layers);
            w.key("threads");
            w.integer(p.threads);
            w.key("useBPE");
            w.boolean(p.useBPE);
            w.end_object();
        }
        w.end_array();
        write_out(w.str() + "\n");
        return;
    }
    if (profiles.isEmpty()) {
        write_out("No training profiles yet.\n");
        return;
    }
    // Columns as wide as their longest entry; "*" marks the default.
    struct Row {
        std::string mark, name, status, last, weights;
    };
    std::vector<Row> rows = {{" ", "NAME", "STATUS", "LAST TRAINED", "WEIGHTS"}};
    for (const TrainingProfile &p : profiles) {
        rows.push_back(Row{p.id == default_id ? "*" : " ",
                           display_text(utf8(p.name), false),
                           utf8(trainingStatusText(p.status)),
                           last_trained_text(p),
                           display_text(path_bytes(p.weightsPath), false)});
    }
    size_t name_width = 0;
    size_t status_width = 0;
    for (const Row &r : rows) {
        name_width = std::max(name_width, static_cast<size_t>(QString::fromUtf8(r.name).size()));
        status_width =
            std::max(status_width, static_cast<size_t>(QString::fromUtf8(r.status).size()));
    }
    auto pad = [](const std::string &text, size_t width) {
        size_t shown = static_cast<size_t>(QString::fromUtf8(text).size());
        return text + std::string(width > shown ? width - shown : 0, ' ');
    };
    std::string out;
    for (const Row &r : rows) {
        out += r.mark + " " + pad(r.name, name_width) + "  " + pad(r.status, status_width) + "  "
               + pad(r.last, 16) + "  " + r.weights + "\n";
    }
    write_out(out);
}

void add_profile(const Options &o, TrainingManager *manager)
{
    const std::string &name = o.operands[1];
    const QString qname = QString::fromUtf8(name);
    if (qname.trimmed().isEmpty()) {
        throw Failure("a profile needs a name");
    }
    for (const char *word : TRAIN_WORDS) {
        if (name == word) {
            throw Failure("\"" + name + "\" is a sub-command of train, not a profile name");
        }
    }
    for (const TrainingProfile &p : manager->profiles()) {
        if (p.name == qname) {
            throw Failure("a profile named \"" + name + "\" already exists");
        }
    }
    TrainingProfile draft;
    draft.name = qname;
    for (size_t i = 2; i < o.operands.size(); i++) {
        draft.sourceDirectories.append(path_text(resolve_dir(o.operands[i])));
    }
    draft.steps = o.steps.value_or(draft.steps);
    draft.batchSize = o.batch.value_or(draft.batchSize);
    draft.learningRate = o.learning_rate.value_or(draft.learningRate);
    draft.threads = o.threads.value_or(draft.threads);
    draft.heads = o.heads.value_or(draft.heads);
    draft.layers = o.layers.value_or(draft.layers);
    draft.useBPE = o.bpe;
    const TrainingProfile p = manager->createProfile(draft);
    std::string out = "added profile " + quoted(name) + " with weights "
                      + display_text(path_bytes(p.weightsPath), false) + "\n";
    if (manager->defaultProfileId() == p.id) {
        out += quoted(name) + " is the default profile\n";
    }
    write_out(out);
}

void set_default(const Options &o, TrainingManager *manager)
{
    TrainingProfile p = find_profile(*manager, o.operands[1]);
    manager->setDefaultProfileId(p.id);
    std::string out = quoted(utf8(p.name)) + " is the default profile\n";
    if (p.status != TrainingStatus::Trained) {
        out += std::string("it is not trained yet; until it is, directories use the ")
               + (manager->builtInWeightsPath().isEmpty() ? "untrained" : "built-in")
               + " encoder\n";
    }
    write_out(out);
}

// The write end of the pipe that carries SIGINT into the event loop; -1 when none.
volatile std::sig_atomic_t g_interrupt_fd = -1;

extern "C" void on_interrupt(int)
{
    int fd = g_interrupt_fd;
    if (fd >= 0) {
        char byte = 1;
        ssize_t ignored = write(fd, &byte, 1);
        (void)ignored;
    }
}

// Catches SIGINT for its lifetime and calls cancel in the event loop for each one.
class InterruptCatcher
{
public:
    template <typename Fn>
    explicit InterruptCatcher(Fn cancel)
    {
        if (pipe2(m_fds, O_CLOEXEC | O_NONBLOCK) != 0) {
            throw Failure("cannot create a pipe: " + errno_text());
        }
        m_notifier = std::make_unique<QSocketNotifier>(m_fds[0], QSocketNotifier::Read);
        QSocketNotifier *notifier = m_notifier.get();
        QObject::connect(notifier, &QSocketNotifier::activated, notifier, [this, cancel] {
            char bytes[16];
            while (read(m_fds[0], bytes, sizeof bytes) > 0) {
            }
            cancel();
        });
        g_interrupt_fd = m_fds[1];
        struct sigaction sa = {};
        sa.sa_handler = on_interrupt;
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = SA_RESTART;
        sigaction(SIGINT, &sa, &m_previous);
    }
    ~InterruptCatcher()
    {
        sigaction(SIGINT, &m_previous, nullptr);
        g_interrupt_fd = -1;
        m_notifier.reset();
        close(m_fds[0]);
        close(m_fds[1]);
    }
    InterruptCatcher(const InterruptCatcher &) = delete;
    InterruptCatcher &operator=(const InterruptCatcher &) = delete;

private:
    int m_fds[2] = {-1, -1};
    std::unique_ptr<QSocketNotifier> m_notifier;
    struct sigaction m_previous = {};
};

void print_progress(const QString &text)
{
    std::string line = display_text(utf8(text), false) + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

void run_training(const Options &o, TrainingManager *manager)
{
    const TrainingProfile profile = find_profile(*manager, o.operands[0]);
    QCoreApplication *app = QCoreApplication::instance();
    bool finished = false;
    QObject context; // the connections below end with this function
    QObject::connect(manager, &TrainingManager::trainingProgressChanged, &context, [manager] {
        print_progress(manager->trainingProgress());
    });
    QObject::connect(manager,
                     &TrainingManager::trainingFinished,
                     &context,
                     [&finished, app, &profile](const QUuid &id) {
                         if (id == profile.id) {
                             finished = true;
                             app->exit(0);
                         }
                     });
    InterruptCatcher interrupt([manager] {
        if (manager->isTraining()) {
            manager->cancelTraining();
        }
    });

    manager->train(profile);
    if (!manager->isTraining() && !finished) {
        // Refused before it started: no trainer beside the program, or a run under way.
        throw Failure(utf8(manager->trainingProgress()));
    }
    if (!finished) {
        app->exec();
    }
    std::optional<TrainingProfile> after = manager->profile(profile.id);
    if (!after || after->status != TrainingStatus::Trained) {
        throw Failure(utf8(manager->trainingProgress()));
    }
}

} // namespace

struct ModelRuntime::State {
    std::unique_ptr<QCoreApplication> app;
    std::unique_ptr<Settings> settings;
    std::unique_ptr<TrainingManager> training;
    QtMessageHandler previous = nullptr;
};

ModelRuntime::ModelRuntime(int &argc, char **argv) : m_state(new State)
{
    m_state->previous = qInstallMessageHandler(print_qt_message);
    m_state->app = std::make_unique<QCoreApplication>(argc, argv);
    m_state->settings = Settings::openUserSettings();
    m_state->training = std::make_unique<TrainingManager>(m_state->settings.get());
}

TrainingManager *ModelRuntime::training() const
{
    return m_state->training.get();
}

Settings *ModelRuntime::settings() const
{
    return m_state->settings.get();
}

ModelRuntime::~ModelRuntime()
{
    m_state->training.reset();
    m_state->settings.reset(); // writes what is left to the disk
    m_state->app.reset();
    qInstallMessageHandler(m_state->previous);
    delete m_state;
}

std::string application_weights(const ModelRuntime &model, const std::string &root,
                                std::string *description)
{
    const TrainingManager &manager = *model.training();
    const std::optional<QString> override_text = model.settings()->encoderOverride(path_text(root));
    const QUuid override_id = override_text ? JsonCoding::uuidFromText(*override_text) : QUuid();
    const QString weights = manager.weightsPathFor(override_id);
    // Which encoder the manager chose, named for the line on standard error.
    for (const TrainingProfile &p : manager.profiles()) {
        if (p.status == TrainingStatus::Trained && p.weightsPath == weights) {
            *description = (p.id == override_id
                                ? "profile \"" + utf8(p.name) + "\" chosen for this directory ("
                                : "default profile \"" + utf8(p.name) + "\" (")
                           + path_bytes(weights) + ")";
            return path_bytes(weights);
        }
    }
    if (!weights.isEmpty()) {
        *description = "built-in encoder (" + path_bytes(weights) + ")";
        return path_bytes(weights);
    }
    *description = "untrained encoder (no trained default profile, no built-in encoder)";
    return "";
}

WalkConfig application_walk_config(const ModelRuntime &model)
{
    const Settings *settings = model.settings();
    WalkConfig config;
    for (const QString &ext : settings->effectiveExtraExtensions()) {
        config.extensions.push_back(ext.toStdString());
    }
    for (const QString &pattern : settings->effectiveExcludePatterns()) {
        config.excludes.push_back(pattern.toStdString());
    }
    config.max_file_size = static_cast<uint64_t>(settings->effectiveMaxFileSize());
    return config;
}

void application_chunking(const ModelRuntime &model, int32_t *chunk_size, int32_t *overlap)
{
    const Settings *settings = model.settings();
    *chunk_size = settings->effectiveChunkSize();
    *overlap = settings->effectiveOverlap();
}

std::vector<std::string> application_open_folders(const ModelRuntime &model)
{
    std::vector<std::string> folders;
    for (const QString &path : model.settings()->savedTabPaths()) {
        folders.push_back(path_bytes(path));
    }
    return folders;
}

bool index_encoder_matches(const std::string &root, const std::string &weights)
{
    return EncoderRecord::matches(path_text(root), path_text(weights));
}

void note_index_encoder(const std::string &root, const std::string &weights)
{
    EncoderRecord::write(path_text(root), path_text(weights));
}

void model_prompt(const Options &o, const ModelRuntime &model)
{
    std::string root = resolve_dir(o.operands[0]);
    require_index(root);
    std::string description;
    std::string weights = chosen_weights(o, model, root, &description);
    check_weights(weights);
    const QString dir = path_text(root);
    IndexHandle engine(dir, path_text(weights));
    if (!engine.isOpen()) {
        throw Failure(engine.lastError().toStdString());
    }
    const QString query = QString::fromUtf8(o.query);
    const QList<SearchResult> hits =
        engine.search(query, static_cast<SearchMode>(o.mode), std::min<int32_t>(o.k, 64));

    // What the tab shows: its pinned results first, then the hits that are not pinned.
    const std::optional<QList<PinnedResult>> pins =
        PinnedResult::decodeList(model.settings()->pinnedResultsData(dir));
    QList<SearchResult> pinned;
    QSet<QString> pinned_ids;
    for (const PinnedResult &pin : pins.value_or(QList<PinnedResult>())) {
        pinned.append(pin.toResult());
        pinned_ids.insert(pin.id);
    }
    QList<SearchResult> displayed = pinned;
    for (const SearchResult &hit : hits) {
        if (!pinned_ids.contains(hit.id)) {
            displayed.append(hit);
        }
    }
    PromptScope scope = o.scope == "pinned" ? PromptScope::Pinned
                        : o.scope == "all"  ? PromptScope::AllVisible
                                            : PromptScope::Top5;
    const QByteArray text = buildPrompt(query, scope, displayed, pinned).toUtf8();
    write_out(text.toStdString());
    // The text is printed exactly; only a terminal gets a last newline it lacks.
    if (!text.endsWith('\n') && isatty(STDOUT_FILENO) == 1) {
        write_out("\n");
    }
}

void model_train(const Options &o, const ModelRuntime &model)
{
    const std::string &sub = o.operands[0];
    if (sub == "profiles") {
        list_profiles(o, model.training());
    } else if (sub == "add") {
        add_profile(o, model.training());
    } else if (sub == "default") {
        set_default(o, model.training());
    } else {
        run_training(o, model.training());
    }
    model.settings()->sync();
}
