#include "agent/journal/journal.h"
