// Anchor for the shared library; its code comes from the qxcore and qxplatform archives.
