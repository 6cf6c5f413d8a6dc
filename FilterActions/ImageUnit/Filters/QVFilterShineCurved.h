// QVFilterShineCurved: the shine under a name of its own. It adds nothing: its inputs, graph and
// (absent) mask kernel are those of QVFilterShine, so it lays the plain gradient.
#pragma once

#include "Filters/QVFilterShine.h"

class QVFilterShineCurved : public QVFilterShine {};
