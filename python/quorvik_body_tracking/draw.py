"""Pictures of tracking results as plain RGB arrays, without any plotting library."""

import numpy as np

# Pairs of joint types joined by a line.
BONES = ((0, 1), (1, 8), (8, 9), (1, 2), (2, 3), (3, 4), (1, 5), (5, 6), (6, 7),
         (9, 10), (10, 11), (11, 12), (9, 13), (13, 14), (14, 15))

_ID_COLOURS = np.array([(230, 80, 60), (70, 170, 240), (110, 210, 90), (240, 190, 50), (190, 100, 220),
                        (60, 210, 190), (240, 130, 180), (160, 160, 60), (120, 120, 240), (240, 150, 90)],
                       dtype=np.float32)


def id_colour(body_id):
    """The colour a body of this id is drawn in."""
    return _ID_COLOURS[(int(body_id) - 1) % len(_ID_COLOURS)]


def _grey(depth):
    # Near is bright, far is dark, no measurement is black.
    depth = np.asarray(depth)
    valid = depth > 0
    grey = np.zeros(depth.shape, dtype=np.float32)
    if valid.any():
        near, far = float(depth[valid].min()), float(depth[valid].max())
        span = max(far - near, 1.0)
        grey[valid] = 230.0 - 180.0 * (depth[valid].astype(np.float32) - near) / span
    return grey


def _line(image, a, b, colour, thickness):
    h, w = image.shape[:2]
    if not (np.all(np.isfinite(a)) and np.all(np.isfinite(b))):
        return
    steps = int(max(abs(b[0] - a[0]), abs(b[1] - a[1]))) + 1
    if steps > 4 * (h + w):  # a joint far outside the picture
        steps = 4 * (h + w)
    xs = np.rint(np.linspace(a[0], b[0], steps)).astype(np.int64)
    ys = np.rint(np.linspace(a[1], b[1], steps)).astype(np.int64)
    r = thickness // 2
    for dy in range(-r, thickness - r):
        for dx in range(-r, thickness - r):
            x, y = xs + dx, ys + dy
            inside = (x >= 0) & (x < w) & (y >= 0) & (y < h)
            image[y[inside], x[inside]] = colour


def overlay(depth, frame):
    """An (H, W, 3) uint8 picture of a depth map with a Frame drawn over it: depth in grey,
    each body's pixels in its id's colour, the floor tinted blue, and the skeletons (bones
    between two High joints bright, between Low ones dimmer)."""
    depth = np.asarray(depth)
    if depth.shape != (frame.height, frame.width):
        raise ValueError(f"depth of shape {depth.shape} does not match the frame's {frame.height}x{frame.width}")
    grey = _grey(depth)
    image = np.repeat(grey[:, :, None], 3, axis=2)
    floor = frame.floor_mask.astype(bool)
    image[floor] = 0.6 * image[floor] + 0.4 * np.array([60, 110, 255], dtype=np.float32)
    for body in frame.bodies:
        pixels = frame.body_mask == body.id
        image[pixels] = 0.35 * image[pixels] + 0.65 * id_colour(body.id)
    thickness = max(1, frame.width // 160)
    for body in frame.bodies:
        colour = id_colour(body.id)
        for a, b in BONES:
            sa, sb = int(body.joint_status[a]), int(body.joint_status[b])
            if sa == 0 or sb == 0:
                continue
            c = np.minimum(colour * 0.5 + 128, 255) if sa == 2 and sb == 2 else colour * 0.6 + 40
            _line(image, body.joints_image[a], body.joints_image[b], c, thickness)
        for j in np.flatnonzero(body.joint_status):
            _line(image, body.joints_image[j], body.joints_image[j], (255, 255, 255), thickness + 2)
    return np.clip(image, 0, 255).astype(np.uint8)
