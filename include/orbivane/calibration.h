// Everything a host needs: the camera model, pictures, geometry, progress
// records and the calibrators of the library.
#pragma once

#include "orbivane/export.h"

#include "orbivane/utils/atomic_file.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/optional.h"
#include "orbivane/utils/return_state.h"
#include "orbivane/utils/size.h"
#include "orbivane/utils/surface_quad.h"
#include "orbivane/utils/triangle_list.h"
#include "orbivane/utils/uv_grid.h"
#include "orbivane/utils/wide_text.h"

#include "orbivane/image/image_conversion.h"
#include "orbivane/image/rgb_image.h"
#include "orbivane/image/rgb_image_interface.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/image/yuv_image.h"
#include "orbivane/image/yuv_image_interface.h"

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/final_matrix.h"
#include "orbivane/geometry/geometry.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/matrix_representable_geometry.h"
#include "orbivane/geometry/region_based_geometry.h"
#include "orbivane/geometry/shader.h"
#include "orbivane/geometry/shader_directories.h"
#include "orbivane/geometry/surface_projection.h"

#include "orbivane/camera/camera_file.h"
#include "orbivane/camera/orbivane.h"
#include "orbivane/camera/orbivane_linkage.h"
#include "orbivane/camera/orbivane_module.h"
#include "orbivane/camera/quarn_connection.h"

#include "orbivane/logging/logger_configuration.h"

#include "orbivane/geometry_calibration/adv_step_info.h"
#include "orbivane/geometry_calibration/calibration_pipeline.h"
#include "orbivane/geometry_calibration/calibration_report.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/geometry_calibration/geometry_calibration_inferface.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"
#include "orbivane/geometry_calibration/status_callback.h"
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"

#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/rendering/panorama_renderer.h"

#include "orbivane/session/camera_backend.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/session/quarn_records.h"
#include "orbivane/session/quarn_session.h"
#include "orbivane/recordings/recording_image_source.h"
#include "orbivane/recordings/recording_player.h"
#include "orbivane/recordings/recordings_index.h"
#include "orbivane/simulated/simulated_camera.h"

#include "orbivane/camera/final_matrix.h"
#include "orbivane/sensor_calibration/fisheye_calibration.h"
#include "orbivane/sensor_calibration/resolution_calibration.h"
#include "orbivane/sensor_calibration/sensor_shifter.h"

#include "orbivane/image_selection/person_detector.h"
#include "orbivane/image_selection/smart_finder_image.h"
#include "orbivane/image_selection/smart_finder_match_to_target.h"
