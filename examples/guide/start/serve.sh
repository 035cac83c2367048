build/hello serve pipe:4001
