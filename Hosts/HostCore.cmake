# The hosts' reusable core (recipes, batches, value parsing, filter descriptions, parameter-view
# trees, plug-in loading and services): linked by qvfilter, the Python module, the unit tests,
# the studio, the GIMP plug-in and the fuzz targets. Included by
# Hosts/CMakeLists.txt and, when the hosts are not built (the fuzz build), by the top level, so
# that the tests and fuzz targets have it either way.
set(QV_HOST_CORE_DIR ${CMAKE_CURRENT_LIST_DIR}/qvfilter)
set(QV_HOST_CORE_SOURCES
  ${QV_HOST_CORE_DIR}/Recipe.cpp
  ${QV_HOST_CORE_DIR}/Batch.cpp
  ${QV_HOST_CORE_DIR}/PlugIns.cpp
  ${QV_HOST_CORE_DIR}/TextureCatalogue.cpp
  ${QV_HOST_CORE_DIR}/ValueParsing.cpp
  ${QV_HOST_CORE_DIR}/FilterInfo.cpp
  ${QV_HOST_CORE_DIR}/TextureIndexFile.cpp
  ${QV_HOST_CORE_DIR}/ViewTree.cpp)
add_library(qvhostcore STATIC ${QV_HOST_CORE_SOURCES})
target_include_directories(qvhostcore PUBLIC ${QV_HOST_CORE_DIR})
target_link_libraries(qvhostcore PUBLIC QVPlatform nlohmann_json::nlohmann_json ${CMAKE_DL_LIBS})

# The studio's model (sessions, request reading, the sample picture a session opens): part of
# the host executable, and a library of its own so that the studio's unit tests and fuzz
# target build it without the HTTP server.
set(QV_STUDIO_MODEL_SOURCES
  ${QV_HOST_CORE_DIR}/Commands/ServeStudio.cpp
  ${QV_HOST_CORE_DIR}/Commands/StudioRequests.cpp
  ${QV_HOST_CORE_DIR}/SampleImage.cpp)
add_library(qvstudio STATIC ${QV_STUDIO_MODEL_SOURCES})
target_include_directories(qvstudio PUBLIC ${QV_HOST_CORE_DIR}/Commands)
target_link_libraries(qvstudio PUBLIC qvhostcore CLI11::CLI11 TBB::tbb)
