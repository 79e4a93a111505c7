// Between a live row and what is stored of it: the row record of the
// settings file, and the memory of an output kept after its row has gone.
#pragma once

#include <set>

#include "model/row_state.h"
#include "settings/output_settings.h"

namespace vt::model {

// A row as it comes back from the settings file: not connected, at its
// stored order and hue or else at `position`.
RowState rowFromStored(const settings::OutputSettings& stored, RowId id, int position);

// What is written for a row. `muted` is the flag to store, which is not the
// live one while a solo or a measurement holds the mutes.
settings::OutputSettings storedFromRow(const RowState& row, bool muted);
settings::RememberedOutput rememberedFromRow(const RowState& row, bool muted);

// A returning output takes back what was known of it.
void applyRemembered(RowState& row, const settings::RememberedOutput& memory);

// The next colour not used by another row.
int nextHue(const std::set<int>& taken);

}  // namespace vt::model
