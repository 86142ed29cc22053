#include "dpm/AbstractDPluginProvider.h"

AbstractDPluginProvider::~AbstractDPluginProvider() = default;
