tolk describe pipe:4001
