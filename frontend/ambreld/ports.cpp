#include "ports.h"

#include <hostkernel/pnp.h>
#include <hostkernel/registry.h>

#include "text.h"

namespace ambreld {

namespace hk = hostkernel;

const GUID kCategoryAudio = {0x6994AD04, 0x93EF, 0x11D0, {0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
const GUID kCategoryCapture = {0x65E8773D, 0x8F56, 0x11D0, {0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
const GUID kCategoryRender = {0x65E8773E, 0x8F56, 0x11D0, {0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};

namespace {

const std::u16string kMediaCategories = u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\MediaCategories";

bool isOurs(const hk::DeviceInterface &i)
{
    return i.referenceString.compare(0, 6, u"ambrel") == 0;
}

std::u16string linkOf(const std::vector<hk::DeviceInterface> &list, const std::u16string &reference)
{
    for (const auto &i : list) {
        if (i.referenceString == reference) {
            return i.symbolicLink;
        }
    }
    return u"";
}

std::string dirNameFor(const std::u16string &name, const std::u16string &reference)
{
    std::string utf8 = utf16ToUtf8(name);
    if (utf8.empty() || utf8 == "." || utf8 == ".." || utf8.size() > 255 || utf8.find('/') != std::string::npos ||
        utf8[0] == '#') {
        return "#" + utf16ToUtf8(reference);
    }
    return utf8;
}

} // namespace

std::vector<PortView> listPorts()
{
    std::vector<PortView> ports;
    auto render = hk::deviceInterfaces(kCategoryRender);
    auto capture = hk::deviceInterfaces(kCategoryCapture);
    for (const hk::DeviceInterface &i : hk::deviceInterfaces(kCategoryAudio)) {
        if (!isOurs(i)) {
            continue;
        }
        auto friendly = hk::registry::value(i.deviceParametersKey, u"FriendlyName");
        if (!friendly) {
            continue; // registered but not yet named: publication still under way
        }
        PortView p;
        p.referenceString = i.referenceString;
        p.name = friendly->text();
        p.audioLink = i.symbolicLink;
        p.renderLink = linkOf(render, i.referenceString);
        p.captureLink = linkOf(capture, i.referenceString);
        p.dirName = dirNameFor(p.name, p.referenceString);
        ports.push_back(std::move(p));
    }
    return ports;
}

bool findPortByDirName(const std::string &dirName, PortView *port)
{
    for (PortView &p : listPorts()) {
        if (p.dirName == dirName) {
            *port = std::move(p);
            return true;
        }
    }
    return false;
}

std::u16string nameGuidOf(const std::u16string &name)
{
    for (const std::u16string &key : hk::registry::subkeyNames(kMediaCategories)) {
        auto value = hk::registry::value(kMediaCategories + u"\\" + key, u"Name");
        if (value && value->text() == name) {
            return key;
        }
    }
    return u"";
}

} // namespace ambreld
