// The names the plug-in exports: its bundle identifier, the filter names (each equal to its
// class name, the name hosts create the filter by) and the input keys of its own.
#pragma once

// The plug-in bundle's identifier. Every bundle lookup of the plug-in goes through it (the
// host is the main program, so the main bundle is never the plug-in's). The build writes it
// into the bundle's Info.plist.
inline constexpr const char* QVFilterImageUnitsBundleIdentifier = "org.qvfilter.filters.imageunits";

inline constexpr const char* QVFilterInputImageKey = "inputImage";

inline constexpr const char* QVFilterRotateName = "QVFilterRotate";
inline constexpr const char* QVFilterResizeName = "QVFilterResize";
inline constexpr const char* QVFilterBorderName = "QVFilterBorder";
inline constexpr const char* QVFilterReflectionName = "QVFilterReflection";
inline constexpr const char* QVFilterWatermarkName = "QVFilterWatermark";
inline constexpr const char* QVFilterBlurName = "QVFilterBlur";
inline constexpr const char* QVFilterShineStraightName = "QVFilterShineStraight";
inline constexpr const char* QVFilterShineCurvedName = "QVFilterShineCurved";

inline constexpr const char* kQVInputEdgeKey = "inputEdge";
inline constexpr const char* kQVInputAlphaKey = "inputAlpha";
inline constexpr const char* kQVInputAlphaNoughtKey = "inputAlphaNought";
inline constexpr const char* kQVInputOffsetKey = "inputOffset";
inline constexpr const char* kQVInputBorderTypeKey = "inputBorderType";
inline constexpr const char* kQVInputProportionKey = "inputProportion";
inline constexpr const char* kQVInputLightSourceKey = "inputLightSource";
