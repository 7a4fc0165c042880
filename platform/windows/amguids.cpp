// Storage for the kit identifiers the driver names.
//
// The DDK headers declare their GUIDs `extern`, in two ways:
// - DEFINE_GUID (portcls, dmusicks, wdm: IID_*, CLSID_*): INITGUID below turns
//   every one of them into a definition here;
// - DEFINE_GUIDSTRUCT (ks.h, ksmedia.h: KSCATEGORY_*, KSDATAFORMAT_* ...):
//   mmreg.h and ksmedia.h declare some of these twice, so they cannot all be
//   defined in one unit; the ones the driver uses are defined from their
//   STATIC_ values in the list below. A missing one is an undefined reference
//   at link time that names it.
// The link keeps only what some unit refers to (-fdata-sections,
// --gc-sections). The driver's own identifiers need none of this: its
// DEFINE_GUID makes unit-local constants (amplatform.h).
#define INITGUID

#include <amplatform.h>

#define AM_DEFINE_KS_GUID(name) EXTERN_C const GUID name = {STATICGUIDOF(name)}

AM_DEFINE_KS_GUID(GUID_NULL);
AM_DEFINE_KS_GUID(KSCATEGORY_AUDIO);
AM_DEFINE_KS_GUID(KSCATEGORY_RENDER);
AM_DEFINE_KS_GUID(KSCATEGORY_CAPTURE);
AM_DEFINE_KS_GUID(KSDATAFORMAT_TYPE_MUSIC);
AM_DEFINE_KS_GUID(KSDATAFORMAT_SUBTYPE_MIDI);
AM_DEFINE_KS_GUID(KSDATAFORMAT_SUBTYPE_MIDI_BUS);
AM_DEFINE_KS_GUID(KSDATAFORMAT_SPECIFIER_NONE);
AM_DEFINE_KS_GUID(KSMUSIC_TECHNOLOGY_PORT);
AM_DEFINE_KS_GUID(KSNODETYPE_SYNTHESIZER);
AM_DEFINE_KS_GUID(KSAUDFNAME_MIDI);
AM_DEFINE_KS_GUID(KSPROPSETID_General);
AM_DEFINE_KS_GUID(KSPROPSETID_Pin);
AM_DEFINE_KS_GUID(IID_IAllocatorMXF);
