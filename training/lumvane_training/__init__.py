"""Everything that makes the Lumvane networks: rendered scenes, noise, stretch, network, loss, evaluation."""

GENERATOR_VERSION = "1.2"
"""Version of the scene, noise and stretch laws; written into the metadata of every exported package."""
