// The printers' services: added, withdrawn, and gone when their goodbyes are said.
#pragma once

#include <cstdint>
#include <string_view>

#include "standard/state.h"

/// Between the goodbyes of one record, in milliseconds. A stop has a second in all.
constexpr int64_t kGoodbyeInterval = 250;

/// AddService and RemoveService of core.h.
bool InsertService(Core& core, std::string_view instance, std::string_view type,
                   std::string_view txt, uint16_t port, int64_t now);
bool WithdrawService(Core& core, std::string_view instance, std::string_view type, int64_t now);

/// Whether this service is offered: added, and not withdrawn since.
bool IsServiceOffered(const Core& core, std::string_view instance, std::string_view type);

/// An address comes, or goes with its goodbyes. False when it is there already, or is not.
bool InsertAddress(Core& core, const Address& address);
bool WithdrawAddress(Core& core, const Address& address, int64_t now);

/// Withdraws all that is there.
void WithdrawAll(Core& core, int64_t now);

/// Lets what is leaving go without its goodbyes: there is no link.
void DropLeaving(Core& core);

/// Says the goodbyes that are due. True when it did anything.
bool AdvanceLeaving(Core& core, int64_t now);

/// When the next of it is due; kNever when nothing is.
int64_t NextLeavingTurn(const Core& core);
