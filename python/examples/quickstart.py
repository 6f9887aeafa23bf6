"""A stack of rigid poses in a structured array, composed and inverted in place with omkm."""
import numpy as np

import omkm

rng = np.random.default_rng(3)
bodies = np.zeros(1000, dtype=[("pose", "f8", (4, 4)), ("mass", "f8")])
bodies["pose"] = np.eye(4) + 0.1 * rng.standard_normal((1000, 4, 4))
step = np.eye(4) + 0.01 * rng.standard_normal((4, 4))

# One call on the whole stack; the field of the structured array is read where it lies, and one
# matrix against the stack takes the library's single-operand member.
moved = omkm.matmul(bodies["pose"], step)

# out= writes into an existing array (here the field itself) without allocating.
omkm.inv(moved, out=bodies["pose"])

# Library statuses are numpy LinAlgErrors that carry the status.
try:
    omkm.inv(np.zeros((2, 3, 3)))
except omkm.SingularMatrixError as e:
    print("singular:", e.status)

omkm.set_num_threads(1)   # the thread budget of the library; 0 returns to the default
assert np.allclose(bodies["pose"] @ moved, np.eye(4), atol=1e-9)
print("poses:", bodies["pose"].shape, "threads:", omkm.get_num_threads())
