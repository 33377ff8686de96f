// The shared library is assembled from the provider and framework archives.
