// The published ports as a MIDI client finds them: the enabled device
// interfaces the driver registered (audio for every port, render and capture
// by direction), named by their "FriendlyName" values.
#pragma once

#include <string>
#include <vector>

#include "amplatform.h"

namespace ambreld {

extern const GUID kCategoryAudio;
extern const GUID kCategoryRender;
extern const GUID kCategoryCapture;

struct PortView {
    std::u16string referenceString; // "ambrel3"
    std::u16string name;            // what the port was opened as
    std::u16string audioLink;       // symbolic links of its interfaces ("" when absent)
    std::u16string renderLink;
    std::u16string captureLink;
    std::string dirName; // its directory below <mount>/ports
};

std::vector<PortView> listPorts();
bool findPortByDirName(const std::string &dirName, PortView *port);

// The port's name GUID as the media-category key that publication wrote
// names it ("" when none carries the name).
std::u16string nameGuidOf(const std::u16string &name);

} // namespace ambreld
