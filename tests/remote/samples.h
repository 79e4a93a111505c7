// One filled-in example of every message, for round trips and the fuzz seeds.
#pragma once

#include <vector>

#include "remote/mac_message.h"
#include "remote/phone_message.h"

namespace vt::remote::samples {

MacState state();
std::vector<PhoneMessage> phoneMessages();
std::vector<MacMessage> macMessages();

}  // namespace vt::remote::samples
