# The library. The sources are compiled once, into an object library; the shared library and the
# static twin for the tests and the tool are both linked from it, so these reach hidden symbols and
# still run the very code that is shipped.
include(GenerateExportHeader)

set(ZEBTDX_PUBLIC_HEADERS
  support/ZebTdxLog.h
  support/ZebTdxMutex.h
  support/ZebDataDeleteLocker.h
  support/ZebThreadSafety.h
  hash/ZebDataHash.h
  hash/ZebHashHandle.h
  hash/ZebHashManager.h
  hash/ZebSmartPointer.h
  data/ZebBlockFuture.h
  data/ZebConstAccessor.h
  data/ZebDataBlock.h
  data/ZebDataReference.h
  data/ZebHashingJob.h
  data/ZebModifyAccessor.h
  data/ZebResultCache.h
  data/ZebThreadPoolManager.h
  io/ZebPriorityList.h
  io/ZebCacheRootLock.h
  io/ZebDataBlockCompressionThread.h
  io/ZebDataBlockReadThread.h
  io/ZebDataBlockWriteRequest.h
  io/ZebDataBlockWriteThread.h
  io/ZebDataBlockWriteThread_Pattern1.h
  io/ZebDataBlockWriteThread_Pattern2.h
  io/ZebGarbageCollectorThread.h
  manager/ZebBuildFilename.h
  manager/ZebDataBlockLru.h
  manager/ZebDataBlockManager.h
  manager/ZebSystemMemory.h
  selfcheck/TdxTester.h)

set(ZEBTDX_SOURCES
  support/ZebBlockInflater.cpp
  support/ZebCompression.cpp
  support/ZebDataDeleteLocker.cpp
  support/ZebDeleteMutexLocker.cpp
  support/ZebDecompression.cpp
  support/ZebForkWatch.cpp
  support/ZebPoolExit.cpp
  support/ZebRegularFile.cpp
  support/ZebTdxLog.cpp
  support/ZebTdxMessage.cpp
  support/ZebTdxMutex.cpp
  support/ZebThreadStart.cpp
  hash/Skein.cpp
  hash/SkeinBatch.cpp
  hash/SkeinLaneForm.cpp
  hash/ZebBlockName.cpp
  hash/ZebDataHash.cpp
  hash/ZebDataHash_Counting.cpp
  hash/ZebDataHash_Pinning.cpp
  hash/ZebDataHash_Text.cpp
  hash/ZebDigestMix.cpp
  hash/ZebHashHandle.cpp
  hash/ZebHashManager.cpp
  hash/ZebHashManager_Diagnostics.cpp
  hash/ZebHashRemoval.cpp
  hash/ZebHashRemovalList.cpp
  hash/ZebHashShards.cpp
  hash/ZebHashTable.cpp
  hash/ZebHashText.cpp
  hash/ZebReadGate.cpp
  hash/ZebStackDigest.cpp
  hash/ZebThreadSlot.cpp
  hash/ZebUseClock.cpp
  data/ZebBlockFuture.cpp
  data/ZebConstAccessor.cpp
  data/ZebDataBlock.cpp
  data/ZebDataReference.cpp
  data/ZebGroupHeader.cpp
  data/ZebHashingJob.cpp
  data/ZebHashingQueue.cpp
  data/ZebHashingTask.cpp
  data/ZebModifyAccessor.cpp
  data/ZebResultCache.cpp
  data/ZebThreadPoolManager.cpp
  io/ZebBlockFile.cpp
  io/ZebBlockFilePath.cpp
  io/ZebBlockPlace.cpp
  io/ZebCacheRootLock.cpp
  io/ZebDataBlockCompressionThread.cpp
  io/ZebDataBlockReadThread.cpp
  io/ZebDataBlockWriteRequest.cpp
  io/ZebDataBlockWriteThread.cpp
  io/ZebDataBlockWriteThread_Pattern1.cpp
  io/ZebDataBlockWriteThread_Pattern2.cpp
  io/ZebDirectory.cpp
  io/ZebFileReader.cpp
  io/ZebGarbageCollectorThread.cpp
  io/ZebWriteErrorForwarder.cpp
  manager/ZebBuildFilename.cpp
  manager/ZebDataBlockLru.cpp
  manager/ZebDataBlockManager.cpp
  manager/ZebDataBlockManager_Admission.cpp
  manager/ZebDataBlockManager_DiskThreads.cpp
  manager/ZebDataBlockManager_Eviction.cpp
  manager/ZebDataBlockManager_GarbageCollection.cpp
  manager/ZebDataBlockManager_Groups.cpp
  manager/ZebDataBlockManager_Layout.cpp
  manager/ZebDataBlockManager_Loading.cpp
  manager/ZebDataBlockManager_Pinning.cpp
  manager/ZebDataBlockManager_Statistics.cpp
  manager/ZebDataBlockManager_SubCache.cpp
  manager/ZebDataBlockManager_WriteQueue.cpp
  manager/ZebMemoryStatus.cpp
  manager/ZebSystemMemory.cpp
  selfcheck/TdxTester.cpp
  selfcheck/TdxTester_Blocks.cpp
  selfcheck/TdxTester_Collection.cpp
  selfcheck/TdxTester_Hashes.cpp
  selfcheck/TdxTester_Images.cpp
  selfcheck/TdxTester_Manager.cpp
  selfcheck/TdxTester_Textures.cpp
  selfcheck/TdxTester_Threads.cpp
  selfcheck/ZebByteChain.cpp
  selfcheck/ZebImageTiles.cpp
  selfcheck/ZebLiveReferences.cpp
  selfcheck/ZebOverCompJobTest.cpp
  selfcheck/ZebRedBlock.cpp
  selfcheck/ZebSelfCheck.cpp
  selfcheck/ZebSelfCheckFrame.cpp
  selfcheck/ZebSelfCheckStore.cpp
  selfcheck/ZebSelfCheckTable.cpp
  selfcheck/ZebSharedRandom.cpp
  selfcheck/ZebThreadedIo.cpp)

set(ZEBTDX_GENERATED_DIR ${PROJECT_BINARY_DIR}/generated)

add_library(ZebTdxObjects OBJECT ${ZEBTDX_SOURCES} ${ZEBTDX_PUBLIC_HEADERS})
add_library(ZebTdx SHARED)
add_library(ZebTdx::ZebTdx ALIAS ZebTdx)

# Names the export macro after the shared library although the objects are compiled elsewhere.
generate_export_header(ZebTdx
  EXPORT_MACRO_NAME ZEBTDX_EXPORT
  EXPORT_FILE_NAME ${ZEBTDX_GENERATED_DIR}/support/ZebTdxExport.h)
configure_file(${PROJECT_SOURCE_DIR}/cmake/ZebTdxVersion.h.in
  ${ZEBTDX_GENERATED_DIR}/support/ZebTdxVersion.h @ONLY)

set(ZEBTDX_SUBSYSTEMS support hash data io manager selfcheck)
set(zebtdx_build_includes ${PROJECT_SOURCE_DIR} ${ZEBTDX_GENERATED_DIR}
  ${ZEBTDX_GENERATED_DIR}/support)
foreach(subsystem IN LISTS ZEBTDX_SUBSYSTEMS)
  list(APPEND zebtdx_build_includes ${PROJECT_SOURCE_DIR}/${subsystem})
endforeach()

set_target_properties(ZebTdxObjects PROPERTIES
  AUTOMOC ON
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON
  EXPORT_NAME ZebTdxObjects)
target_compile_definitions(ZebTdxObjects PRIVATE ZebTdx_EXPORTS)
target_include_directories(ZebTdxObjects PUBLIC ${zebtdx_build_includes})
# Images are the self-check's alone, and no header of a host's names them.
target_link_libraries(ZebTdxObjects
  PUBLIC Qt5::Core Qt5::Concurrent
  PRIVATE Qt5::Gui ZLIB::ZLIB)
zebtdx_compile_options(ZebTdxObjects)
if(ZEBTDX_CHECK_LOCKS)
  zebtdx_check_locks(ZebTdxObjects)
endif()

target_sources(ZebTdx PRIVATE $<TARGET_OBJECTS:ZebTdxObjects>)
set_target_properties(ZebTdx PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LINKER_LANGUAGE CXX)
foreach(directory IN LISTS zebtdx_build_includes)
  target_include_directories(ZebTdx PUBLIC $<BUILD_INTERFACE:${directory}>)
endforeach()
target_include_directories(ZebTdx PUBLIC
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/ZebTdx>)
foreach(subsystem IN LISTS ZEBTDX_SUBSYSTEMS)
  target_include_directories(ZebTdx PUBLIC
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/ZebTdx/${subsystem}>)
endforeach()
# The package does not name zlib: a host needs the library alone, not its headers.
target_link_libraries(ZebTdx
  PUBLIC Qt5::Core Qt5::Concurrent
  PRIVATE Qt5::Gui $<BUILD_INTERFACE:ZLIB::ZLIB>)
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  # The store lives until the process ends, and so must its code: the plug-in that has loaded the
  # library may be closed while disk threads and pools still run.
  target_link_options(ZebTdx PRIVATE LINKER:-z,nodelete)
endif()
target_compile_features(ZebTdx PUBLIC cxx_std_17)
zebtdx_compile_options(ZebTdx)

if(ZEBTDX_BUILD_TESTS OR ZEBTDX_BUILD_TOOLS)
  # The check of a block file is for the tool and the tests; no operation of the store needs it.
  add_library(ZebTdxTwin STATIC $<TARGET_OBJECTS:ZebTdxObjects>
    io/ZebBlockFileChecker.cpp
    io/ZebMemoryBudget.cpp)
  target_include_directories(ZebTdxTwin PUBLIC ${zebtdx_build_includes})
  target_link_libraries(ZebTdxTwin PUBLIC Qt5::Core Qt5::Concurrent Qt5::Gui ZLIB::ZLIB)
  set_target_properties(ZebTdxTwin PROPERTIES LINKER_LANGUAGE CXX)
  zebtdx_compile_options(ZebTdxTwin)
endif()
