"""Synthetic cameras with known truth, made with cv2 and numpy.

:func:`make_rig` puts a wide scene together from the opencv-doc photographs,
lets five modules see parts of it through known homographies (each turned a
little, with keystone, its own exposure, vignetting and sensor noise), and
misaligns them as a camera fresh from assembly would be. The camera it
returns also holds a "Target" module: the whole scene, identity matrix, the
picture target matching aligns the others to. Every calibrator then has an
exact truth to be measured against (:func:`corner_error`).

Conventions (as the library's): a module's 4 x 4 matrix takes texture
coordinates (u, v, 0, 1), both 0..1 over its picture, to the panorama
surface, whose unit square is the panorama; on the plane it acts as the 3 x 3
homography of rows and columns 0, 1 and 3. Corner errors are in panorama
pixels.
"""

import math
import os
from dataclasses import dataclass, field
from typing import Dict, List, Optional, Tuple

import numpy as np

import orbivane

__all__ = [
    "DEFAULT_DATA_DIR",
    "LensSearch",
    "Rig",
    "corner_error",
    "make_lens_search",
    "make_rig",
    "matrix_from_homography",
    "planar_homography",
]

DEFAULT_DATA_DIR = os.environ.get("ORBIVANE_SAMPLE_DATA_DIR", "/usr/share/doc/opencv-doc/examples/data")

_PHOTOGRAPHS = ("building.jpg", "graf1.png", "leuvenA.jpg", "aloeL.jpg")
_MODULE_WIDTH = 0.24  # share of the panorama's width each module spans
_MODULE_HEIGHT = 0.92
# turn (degrees), keystone (perspective term of the texture's x), exposure gain
_MOUNTING = [(-1.2, 0.06, 0.92), (0.8, 0.03, 1.05), (0.0, 0.0, 1.0), (-0.6, -0.03, 0.95), (1.0, -0.06, 1.08)]
# assembly misalignment in texture units: dx, dy, turn (degrees), scale
_MISALIGNMENT = [
    (0.030, -0.020, 1.5, 1.02),
    (-0.025, 0.015, -1.0, 0.985),
    (0.015, 0.025, 0.7, 1.015),
    (-0.020, -0.030, -1.4, 1.0),
    (0.035, 0.010, 1.1, 0.98),
]


def planar_homography(matrix) -> np.ndarray:
    """The 3 x 3 homography of a 4 x 4 module matrix (rows and columns 0, 1, 3)."""
    m = np.asarray(matrix, dtype=np.float64)
    return m[np.ix_([0, 1, 3], [0, 1, 3])].copy()


def matrix_from_homography(homography) -> np.ndarray:
    """The 4 x 4 float32 module matrix of a 3 x 3 homography (identity in depth)."""
    h = np.asarray(homography, dtype=np.float64)
    m = np.eye(4)
    m[np.ix_([0, 1, 3], [0, 1, 3])] = h
    return m.astype(np.float32)


def _translation(x, y):
    return np.array([[1, 0, x], [0, 1, y], [0, 0, 1]], dtype=np.float64)


def _scaling(x, y):
    return np.diag([x, y, 1.0])


def _turn(degrees):
    a = math.radians(degrees)
    return np.array([[math.cos(a), -math.sin(a), 0], [math.sin(a), math.cos(a), 0], [0, 0, 1]])


def corner_error(matrix, truth, panorama: Tuple[int, int]) -> Tuple[float, float]:
    """(mean, largest) distance in panorama pixels between where `matrix` and
    `truth` put the corners of a module's picture."""
    corners = np.array([[0, 0, 1], [1, 0, 1], [1, 1, 1], [0, 1, 1]], dtype=np.float64).T
    a = planar_homography(matrix) @ corners
    b = planar_homography(truth) @ corners
    a = a[:2] / a[2]
    b = b[:2] / b[2]
    d = np.hypot((a[0] - b[0]) * panorama[0], (a[1] - b[1]) * panorama[1])
    return float(d.mean()), float(d.max())


@dataclass
class Rig:
    """A synthetic camera and its truth.

    ``camera``: the misaligned camera with the modules' pictures and the
    "Target" module; ``scene``: the scene picture (also the target's);
    ``truth`` / ``misaligned``: the modules' true and assembled matrices;
    ``names``: the modules left to right; ``panorama``: (width, height).
    """

    camera: "orbivane.Camera"
    scene: np.ndarray
    truth: Dict[str, np.ndarray]
    misaligned: Dict[str, np.ndarray]
    names: List[str]
    panorama: Tuple[int, int]
    pictures: Dict[str, np.ndarray] = field(default_factory=dict)

    def corner_errors(self, camera: "orbivane.Camera") -> Dict[str, Tuple[float, float]]:
        """Each module's (mean, largest) corner error in `camera`, panorama pixels."""
        return {n: corner_error(camera.module(n).matrix, self.truth[n], self.panorama) for n in self.names}


def _load(path: str, height: int) -> np.ndarray:
    import cv2

    photo = cv2.imread(path, cv2.IMREAD_COLOR)
    if photo is None:
        raise FileNotFoundError(f"cannot read the sample photograph '{path}' (is opencv-doc installed?)")
    width = int(round(photo.shape[1] * height / photo.shape[0]))
    return cv2.resize(photo, (width, height), interpolation=cv2.INTER_AREA)


def make_rig(
    data_dir: Optional[str] = None,
    quick: bool = True,
    straight: bool = False,
    seed: int = 0,
    name: str = "synthetic rig",
) -> Rig:
    """A five-module camera on a scene of four photographs.

    ``quick``: a 300-row scene with 360 x 270 module pictures (else 600 rows
    and 720 x 540, the demo's size); ``straight``: upright modules without
    keystone; ``seed``: 0 gives the demo's misalignments, other seeds vary
    them (up to about +-40 %), so several cameras of a fleet differ.
    """
    import cv2

    data_dir = data_dir or DEFAULT_DATA_DIR
    height = 300 if quick else 600
    scene = np.ascontiguousarray(np.hstack([_load(os.path.join(data_dir, p), height) for p in _PHOTOGRAPHS]))
    panorama = (scene.shape[1], scene.shape[0])
    module_size = (360, 270) if quick else (720, 540)
    rng = np.random.default_rng(seed)
    to_pixels = _scaling(*panorama)
    n = len(_MOUNTING)
    step = (0.98 - _MODULE_WIDTH) / (n - 1)
    overlap = (_MODULE_WIDTH - step) / _MODULE_WIDTH

    camera = orbivane.Camera(name)
    camera.panorama_size = panorama
    truth, misaligned, pictures, names = {}, {}, {}, []
    for i in range(n):
        turn, keystone, gain = _MOUNTING[i]
        if straight:
            turn, keystone = 0.0, 0.0
        centre_x = 0.01 + _MODULE_WIDTH / 2 + step * i
        key = np.array([[1, 0, 0], [0, 1, 0], [keystone, 0, 1]], dtype=np.float64)
        true_h = (
            np.linalg.inv(to_pixels)
            @ _translation(centre_x * panorama[0], 0.5 * panorama[1])
            @ _turn(turn)
            @ to_pixels
            @ _scaling(_MODULE_WIDTH, _MODULE_HEIGHT)
            @ key
            @ _translation(-0.5, -0.5)
        )
        dx, dy, mturn, scale = _MISALIGNMENT[i]
        if seed:
            jitter = rng.uniform(0.6, 1.4, size=4)
            dx, dy, mturn = dx * jitter[0], dy * jitter[1], mturn * jitter[2]
            scale = 1.0 + (scale - 1.0) * jitter[3]
        assembled = true_h @ _translation(0.5 + dx, 0.5 + dy) @ _turn(mturn) @ _scaling(scale, scale) @ _translation(
            -0.5, -0.5
        )
        module_name = f"M{i + 1}"
        names.append(module_name)
        truth[module_name] = matrix_from_homography(true_h)
        misaligned[module_name] = matrix_from_homography(assembled)

        # module pixel -> texture -> surface -> scene pixel
        pixels_to_scene = to_pixels @ true_h @ _scaling(1.0 / module_size[0], 1.0 / module_size[1])
        picture = cv2.warpPerspective(
            scene, pixels_to_scene, module_size, flags=cv2.INTER_LINEAR | cv2.WARP_INVERSE_MAP,
            borderMode=cv2.BORDER_REFLECT101,
        )
        ys, xs = np.mgrid[0 : module_size[1], 0 : module_size[0]].astype(np.float32)
        ddx = (xs - 0.5 * module_size[0]) / module_size[0]
        ddy = (ys - 0.5 * module_size[1]) / module_size[1]
        vignette = gain * (1.0 - 0.35 * (ddx * ddx + ddy * ddy))
        noise = np.random.default_rng(7 + i + 100 * seed).normal(0.0, 2.0, size=picture.shape)
        noisy = picture.astype(np.float32) * vignette[..., None] + noise
        picture = np.clip(noisy, 0, 255).astype(np.uint8)
        pictures[module_name] = picture

        module = orbivane.Module(module_name, matrix=misaligned[module_name], picture=picture)
        module.linkage = {
            "left": f"M{i}" if i > 0 else "",
            "right": f"M{i + 2}" if i + 1 < n else "",
            "overlap": overlap,
        }
        camera.add_module(module)
    for i in range(n - 1):
        camera.set_neighbour(names[i], names[i + 1])
    camera.add_module(orbivane.Module("Target", matrix=np.eye(4, dtype=np.float32), picture=scene))
    pictures["Target"] = scene
    return Rig(camera=camera, scene=scene, truth=truth, misaligned=misaligned, names=names, panorama=panorama,
               pictures=pictures)


@dataclass
class LensSearch:
    """A shader parameter search with a known answer.

    ``camera`` has one module "lens" (identity matrix, the clip-matrix and
    lens-distortion shaders, the lens shader as the geometry's shader) whose
    picture is a photograph; ``reference`` is that picture drawn through the
    lens shader with the ``truth`` values (a grid point); ``parameters`` is
    the grid to search ([(name, min, max, step, kind)], a slice around the
    truth unless the whole grid was asked for).
    """

    camera: "orbivane.Camera"
    picture: np.ndarray
    reference: np.ndarray
    truth: Dict[str, float]
    parameters: List[tuple]

    @property
    def pictures(self) -> Dict[str, np.ndarray]:
        return {"lens": self.picture, "reference": self.reference}


# The true lens: the index of its value in each parameter's walk.
_LENS_TRUTH_INDEX = {
    "f_TCorrection_F": 4,
    "f_TCorrection_H": 4,
    "f_TCorrection_V": 8,
    "f_ps_distortion_ext_xshift": 7,
    "f_ps_distortion_ext_yshift": 5,
}


def _lens_shader(values: Dict[str, float]) -> "orbivane.Shader":
    texts = {"i_ps_distortion_ext_pwp": "2", "i_ps_distortion_ext_method": "0"}
    texts.update({k: "%f" % v for k, v in values.items()})
    return orbivane.Shader(orbivane.LENS_DISTORTION_SHADER_UID, texts)


def make_lens_search(
    data_dir: Optional[str] = None, size: Tuple[int, int] = (720, 540), reach: Optional[Dict[str, int]] = None
) -> LensSearch:
    """A lens module looking at graf1.png and the reference its true lens draws.

    ``reach``: per parameter, how many grid values either side of the truth
    the search walks (default 1 for the correction weights, 2 for the
    shifts); a parameter given a reach of None walks its whole range.
    """
    import cv2

    data_dir = data_dir or DEFAULT_DATA_DIR
    photo = cv2.imread(os.path.join(data_dir, "graf1.png"), cv2.IMREAD_COLOR)
    if photo is None:
        raise FileNotFoundError(f"cannot read the sample photograph '{data_dir}/graf1.png' (is opencv-doc installed?)")
    picture = np.ascontiguousarray(cv2.resize(photo, size, interpolation=cv2.INTER_AREA))
    default_reach = {name: (2 if "shift" in name else 1) for name in _LENS_TRUTH_INDEX}
    if reach is not None:
        default_reach.update(reach)
    truth, parameters = {}, []
    for name, low, high, step, kind in orbivane.ShaderBruteForcer.default_parameter_list():
        values = orbivane.ShaderBruteForcer.parameter_values(name, low, high, step)
        index = min(_LENS_TRUTH_INDEX[name], len(values) - 1)
        truth[name] = values[index]
        r = default_reach[name]
        if r is not None:
            low = values[max(0, index - r)]
            high = values[min(len(values) - 1, index + r)] + 0.5 * step
        parameters.append((name, low, high, step, kind))
    reference = orbivane.shade_picture(picture, [_lens_shader(truth)])

    camera = orbivane.Camera("lens search")
    module = orbivane.Module("lens", matrix=np.eye(4, dtype=np.float32), picture=picture)
    module.shader_id = orbivane.LENS_DISTORTION_SHADER_UID
    module.shaders = [orbivane.clip_matrix_shader(np.eye(4)), _lens_shader({})]
    camera.add_module(module)
    return LensSearch(camera=camera, picture=picture, reference=reference, truth=truth, parameters=parameters)
