"""What the cluster's tools share: the cluster, its instances, and the backup of their files."""
