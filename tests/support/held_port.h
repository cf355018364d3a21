#pragma once

#include "vindra/core/free_port.h"

/// A port that no other test is given while this object lives.
using held_port = free_port;
