# The driver's sources, shared by both targets. Paths are relative to the
# project root; nothing else in the tree names driver sources.
set(AMBREL_DRIVER_SOURCES
    common/amunknown.cpp
    adapter/porttable.cpp
    adapter/nameguid/sha1.cpp
    adapter/nameguid/nameguid.cpp
    miniport/fifo/portfifo.cpp
    miniport/midiparser/midiparser.cpp
)
# Sources that need the I/O manager (request completion and everything that
# handles requests).
set(AMBREL_DRIVER_IO_SOURCES
    common/amcomplete.cpp
    adapter/openparams.cpp
)
# Sources that need portcls as well as the I/O manager: the adapter unit's
# driver entry, publication and control-device requests.
set(AMBREL_DRIVER_ADAPTER_SOURCES
    adapter/amadapter.cpp
    adapter/amopenclose.cpp
    adapter/amprocessids.cpp
    adapter/ampublish.cpp
    adapter/amreadwrite.cpp
    adapter/amregistry.cpp
    adapter/amrouting.cpp
)
# Sources that need portcls as well as the I/O manager: the miniport unit's
# miniport object, filter description, properties, streams and data paths.
set(AMBREL_DRIVER_MINIPORT_SOURCES
    miniport/amminiport.cpp
    miniport/amdescriptor.cpp
    miniport/amproperty.cpp
    miniport/amstream.cpp
)
list(TRANSFORM AMBREL_DRIVER_SOURCES PREPEND "${PROJECT_SOURCE_DIR}/")
list(TRANSFORM AMBREL_DRIVER_IO_SOURCES PREPEND "${PROJECT_SOURCE_DIR}/")
list(TRANSFORM AMBREL_DRIVER_ADAPTER_SOURCES PREPEND "${PROJECT_SOURCE_DIR}/")
list(TRANSFORM AMBREL_DRIVER_MINIPORT_SOURCES PREPEND "${PROJECT_SOURCE_DIR}/")
