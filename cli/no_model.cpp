/*
** no_model.cpp -- tarnwick-cli built without Qt: the engine-only commands remain, and the
** commands that need the application's model say so.
*/
#include "model_commands.h"

#include "common.h"

#include <unistd.h>

struct ModelRuntime::State {
};

ModelRuntime::ModelRuntime(int &, char **) {}

ModelRuntime::~ModelRuntime() = default;

Settings *ModelRuntime::settings() const
{
    return nullptr;
}

// The built-in encoder beside the program, as the application finds it beside itself.
std::string application_weights(const ModelRuntime &, const std::string &, std::string *description)
{
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        std::string dir(self, (size_t)n);
        dir.erase(dir.rfind('/') + 1);
        // Beside the program in the build tree, in ../share/tarnwick once installed.
        for (const std::string &builtIn :
             {dir + "default.tten", dir + "../share/tarnwick/default.tten"}) {
            if (exists(builtIn)) {
                *description = "built-in encoder (" + builtIn + ")";
                return builtIn;
            }
        }
    }
    *description = "untrained encoder (no built-in encoder)";
    return "";
}

WalkConfig application_walk_config(const ModelRuntime &)
{
    return WalkConfig{};
}

void application_chunking(const ModelRuntime &, int32_t *chunk_size, int32_t *overlap)
{
    *chunk_size = 800;
    *overlap = 200;
}

bool index_encoder_matches(const std::string &, const std::string &)
{
    return true;
}

void note_index_encoder(const std::string &, const std::string &) {}

std::vector<std::string> application_open_folders(const ModelRuntime &)
{
    return {};
}

void model_prompt(const Options &, const ModelRuntime &)
{
    throw Failure("built without the application model");
}

void model_train(const Options &, const ModelRuntime &)
{
    throw Failure("built without the application model");
}
