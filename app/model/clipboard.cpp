#include "clipboard.h"

Clipboard::~Clipboard() = default;
