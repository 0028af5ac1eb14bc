/*
** model_commands.h -- the subcommands of tarnwick-cli that run on the application's model
** (app/model, app/training): prompts, training profiles, and the settings and encoder the
** application would use for a directory.
**
** With Qt the program is built on that model (model_commands.cpp), so the command line indexes a
** directory with the application's settings and encoder. Without it (no_model.cpp) the engine's
** defaults stand in, and `prompt` and `train` fail with "built without the application model".
*/
#ifndef TRN_CLI_MODEL_COMMANDS_H
#define TRN_CLI_MODEL_COMMANDS_H

#include "args.h"
#include "tarnwick.h"

#include <cstdint>
#include <string>
#include <vector>

class Settings;
class TrainingManager;

// Sets up what the model needs for the life of the process (a QCoreApplication, for the
// trainers' directory and the event loop of a training run, Qt's diagnostics on standard error
// with the "tarnwick: " prefix, and the training manager that the commands are handed). Made once
// by main before any command; tears it down when destroyed. Nothing without the model.
class ModelRuntime
{
public:
    ModelRuntime(int &argc, char **argv);
    ~ModelRuntime();
    // The program's training manager (the profiles, and the encoder each directory uses).
    TrainingManager *training() const;
    // The application's settings, read and written as the application does them.
    Settings *settings() const;
    ModelRuntime(const ModelRuntime &) = delete;
    ModelRuntime &operator=(const ModelRuntime &) = delete;

private:
    struct State;
    State *m_state = nullptr;
};

// The weights the application would open root's index with: the directory's encoder override
// when that profile is trained, else the default profile's weights when trained, else the
// built-in encoder beside the program, else "" (the untrained encoder). description says which,
// for a line on standard error.
std::string application_weights(const ModelRuntime &model, const std::string &root,
                                std::string *description);

// Which files a walk reads: extensions without the dot, patterns in .gitignore syntax (empty:
// the engine's defaults), the size limit in bytes (0: TRN_FILE_SIZE_MAX).
struct WalkConfig {
    std::vector<std::string> extensions;
    std::vector<std::string> excludes;
    uint64_t max_file_size = 0;

    // The engine's options, pointing into this object and into the two vectors given.
    TrnWalkOptions view(std::vector<const char *> *extension_ptrs,
                        std::vector<const char *> *exclude_ptrs) const;
};

// The application's settings ("extraExtensions", "excludePatterns", "maxFileSizeMB"); all
// defaults (empty) without the model.
WalkConfig application_walk_config(const ModelRuntime &model);
// application_walk_config() with the command line's --extensions, --exclude and
// --max-file-size over it (commands.cpp).
WalkConfig walk_config(const Options &o, const ModelRuntime &model);
// The chunking update and watch use when the command line does not say: the application's
// ("chunkSize", "overlap"), or 800 and 200 without the model.
void application_chunking(const ModelRuntime &model, int32_t *chunk_size, int32_t *overlap);
// Whether root's index may be updated with weights: the application's record of the encoder that
// built it names the same one (always true without the model, which keeps no record).
bool index_encoder_matches(const std::string &root, const std::string &weights);
// Records that root's index was built with weights, so the application does not rebuild it.
void note_index_encoder(const std::string &root, const std::string &weights);

// The folders open as tabs in the application, in tab order (none without the model).
std::vector<std::string> application_open_folders(const ModelRuntime &model);

// prompt DIR QUERY: the text "Copy Prompt" puts on the clipboard.
void model_prompt(const Options &o, const ModelRuntime &model);
// train profiles | add | default | NAME.
void model_train(const Options &o, const ModelRuntime &model);

#endif
