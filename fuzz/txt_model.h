// What the printer code should make of a status file and of a device id.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

/// What a look at the status file finds: by port, the instance name's field where there is a
/// printer.
using ModelPrinters = std::array<std::optional<std::string>, 10>;

/// What the scan of `text` should find. `suffix` is what follows manufacturer and model in a name,
/// up to the port's number.
ModelPrinters ModelScan(const std::string& text, const std::string& suffix);

/// The value of MODEL in the text of a device id; none when there is none that is taken.
std::optional<std::string> ModelOfDeviceId(const std::string& text);

/// What GetTXTData should return. `readId` gives the text of the printer's device id, none when the
/// printer can't be asked; it is called at most once.
int32_t ModelTxt(const std::string& status, int32_t port, int32_t kind,
                 const std::string& deviceName,
                 const std::function<std::optional<std::string>()>& readId, std::string& txt);
