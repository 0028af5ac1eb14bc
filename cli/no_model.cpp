/*
** no_model.cpp -- tarnwick-cli built without Qt: the engine-only commands remain, and the
** commands that need the application's model say so.
*/
#include "model_commands.h"

const bool HAVE_APPLICATION_MODEL = false;

struct ModelRuntime::State {
};

ModelRuntime::ModelRuntime(int &, char **) {}

ModelRuntime::~ModelRuntime() = default;

std::string application_weights(const std::string &, std::string *description)
{
    *description = "built-in random encoder";
    return "";
}

void model_index(const Options &)
{
    throw Failure("built without the application model");
}

void model_prompt(const Options &)
{
    throw Failure("built without the application model");
}

void model_train(const Options &)
{
    throw Failure("built without the application model");
}
