#include "qxcurl/token_manager_base.h"

TokenManager_Base::~TokenManager_Base() = default;
