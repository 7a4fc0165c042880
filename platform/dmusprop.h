// DirectMusic synthesizer properties, as the WDK's dmusprop.h defines them:
// the property set a DMus miniport's synthesizer nodes answer and the
// structures it fills. Both platforms take these from here (mingw-w64 has no
// dmusprop.h); the including platform header supplies GUID, DWORD, WCHAR,
// FIELD_OFFSET and DEFINE_GUID.
#pragma once

DEFINE_GUID(KSPROPSETID_Synth, 0xFEDFAE25, 0xE46E, 0x11D1, 0xAA, 0xCE, 0x00, 0x00, 0xF8, 0x75, 0xAC, 0x12);

typedef enum {
    KSPROPERTY_SYNTH_VOLUME = 0,
    KSPROPERTY_SYNTH_VOLUMEBOOST = 1,
    KSPROPERTY_SYNTH_CAPS = 2,
    KSPROPERTY_SYNTH_PORTPARAMETERS = 3,
    KSPROPERTY_SYNTH_CHANNELGROUPS = 4,
    KSPROPERTY_SYNTH_VOICEPRIORITY = 5,
    KSPROPERTY_SYNTH_LATENCYCLOCK = 6,
    KSPROPERTY_SYNTH_RUNNINGSTATS = 7
} KSPROPERTY_SYNTH;

#define SYNTH_PC_DLS 0x00000001
#define SYNTH_PC_EXTERNAL 0x00000002
#define SYNTH_PC_SOFTWARESYNTH 0x00000004
#define SYNTH_PC_MEMORYSIZEFIXED 0x00000008
#define SYNTH_PC_GMINHARDWARE 0x00000010
#define SYNTH_PC_GSINHARDWARE 0x00000020
#define SYNTH_PC_REVERB 0x00000040

#define SYNTH_PORTPARAMS_VOICES 0x00000001
#define SYNTH_PORTPARAMS_CHANNELGROUPS 0x00000002
#define SYNTH_PORTPARAMS_AUDIOCHANNELS 0x00000004
#define SYNTH_PORTPARAMS_SAMPLERATE 0x00000008
#define SYNTH_PORTPARAMS_EFFECTS 0x00000020
#define SYNTH_PORTPARAMS_SHARE 0x00000040

typedef struct _SYNTHCAPS {
    GUID Guid;
    DWORD Flags;
    DWORD MemorySize;
    DWORD MaxChannelGroups;
    DWORD MaxVoices;
    DWORD MaxAudioChannels;
    DWORD EffectFlags;
    WCHAR Description[128];
} SYNTHCAPS, *PSYNTHCAPS;

typedef struct _SYNTH_PORTPARAMS {
    DWORD ValidParams;
    DWORD Voices;
    DWORD ChannelGroups;
    DWORD AudioChannels;
    DWORD SampleRate;
    DWORD EffectsFlags;
    DWORD Share;
} SYNTH_PORTPARAMS, *PSYNTH_PORTPARAMS;

static_assert(sizeof(SYNTHCAPS) == 296 && FIELD_OFFSET(SYNTHCAPS, Flags) == 16 &&
                  FIELD_OFFSET(SYNTHCAPS, EffectFlags) == 36 && FIELD_OFFSET(SYNTHCAPS, Description) == 40,
              "SYNTHCAPS");
static_assert(sizeof(SYNTH_PORTPARAMS) == 28 && FIELD_OFFSET(SYNTH_PORTPARAMS, Share) == 24, "SYNTH_PORTPARAMS");
