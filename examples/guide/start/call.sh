build/hello call pipe:4001
