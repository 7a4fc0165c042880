// Identifiers the platform publishes, written here as the platform documents
// them (braced text), never taken from the driver's or the host's headers: a
// wrong constant in the product and in a header copy must still fail a test.
#pragma once

#include <cstdlib>
#include <string>

#include <hostkernel/executive.h>

namespace published {

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" as the GUID structure it names.
inline GUID guid(const char *text)
{
    std::string t(text);
    auto hex = [&](size_t at, size_t digits) { return std::strtoull(t.substr(at, digits).c_str(), nullptr, 16); };
    GUID g{};
    g.Data1 = ULONG(hex(1, 8));
    g.Data2 = USHORT(hex(10, 4));
    g.Data3 = USHORT(hex(15, 4));
    g.Data4[0] = UCHAR(hex(20, 2));
    g.Data4[1] = UCHAR(hex(22, 2));
    for (int i = 0; i < 6; i++) {
        g.Data4[2 + i] = UCHAR(hex(25 + 2 * i, 2));
    }
    return g;
}

inline const GUID CategoryAudio = guid("{6994AD04-93EF-11D0-A3CC-00A0C9223196}");
inline const GUID CategoryRender = guid("{65E8773E-8F56-11D0-A3B9-00A0C9223196}");
inline const GUID CategoryCapture = guid("{65E8773D-8F56-11D0-A3B9-00A0C9223196}");
inline const GUID FormatTypeMusic = guid("{E725D360-62CC-11CF-A5D6-28DB04C10000}");
inline const GUID SubtypeMidi = guid("{1D262760-E957-11CF-A5D6-28DB04C10000}");
inline const GUID SubtypeDirectMusic = guid("{1A82F8BC-3F8B-11D2-B774-0060083316C1}");
inline const GUID SubtypeMidiBus = guid("{2CA15FA0-6CFE-11CF-A5D6-28DB04C10000}");
inline const GUID SpecifierNone = guid("{0F6417D6-C318-11D0-A43F-00A0C9223196}");
inline const GUID TechnologyPort = guid("{86C92E60-62E8-11CF-A5D6-28DB04C10000}");
inline const GUID NodeSynthesizer = guid("{DFF220F3-F70F-11D0-B917-00A0C9223196}");
inline const GUID PinNameMidi = guid("{185FEDF8-9905-11D1-95A9-00C04FB925D3}");
inline const GUID PinNameMpuOut = guid("{A4DF0EB5-BAC9-11D2-B7A8-0060083316C1}");
inline const GUID PinNameMpuIn = guid("{B2EC0A7D-BAC9-11D2-B7A8-0060083316C1}");
inline const GUID PropsetSynth = guid("{FEDFAE25-E46E-11D1-AACE-0000F875AC12}");
inline const GUID PropsetGeneral = guid("{1464EDA5-6A8F-11D1-9AA7-00A0C9223196}");
inline const GUID UartMiniport = guid("{D3F0CE1C-FFFC-11D1-81B0-0060083316C1}");
inline const GUID UartCaptureMiniport = guid("{D3F0CE1D-FFFC-11D1-81B0-0060083316C1}");
// The component identity of a port opened without one.
inline const GUID DefaultManufacturer = guid("{7E3A9C51-2D84-4B6F-A0C3-5F19E8D27B46}");
inline const GUID DefaultProduct = guid("{C2B85F07-91E6-4A3D-8B72-0D4E6A1F93C8}");

} // namespace published
