// The package's ES modules import each other without ".js", as a bundler allows;
// Node needs the extension, so add it when a relative import is not found.
export async function resolve(specifier, context, next) {
    try {
        return await next(specifier, context);
    } catch (error) {
        if (specifier.startsWith(".")) return next(specifier + ".js", context);
        throw error;
    }
}
