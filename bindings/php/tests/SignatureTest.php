<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests;

use Korlo\Settings\Client;
use PHPUnit\Framework\TestCase;

/**
 * What users of the package may rely on.
 */
final class SignatureTest extends TestCase
{
    private const METHODS = [
        '__construct' => '?string $address = null, float $timeout = 15.0',
        'isRestricted' => 'string $group): bool',
        'get' => 'string ...$names): array',
        'value' => 'string $group, string $key): ?string',
        'merge' => 'array $changes, bool $persist = true): void',
        'testAndMerge' => 'array $expected, array $changes): bool',
        'overwrite' => 'array $names, array $replacement = []): void',
        'erase' => 'string ...$names): void',
        'restore' => 'string ...$names): void',
        'subscribe' => 'string ...$names): void',
        'next' => '?float $timeout = null): ?Korlo\Settings\Change',
        'close' => '): void',
    ];

    /**
     * @return array<array{class-string}>
     */
    public static function classes(): array
    {
        $classes = [];
        foreach (glob(__DIR__ . '/../src/[A-Z]*.php') ?: [] as $path) {
            $classes[basename($path)] = ['Korlo\\Settings\\' . basename($path, '.php')];
        }
        return $classes;
    }

    /**
     * @param class-string $name
     * @dataProvider classes
     */
    public function testEveryPublicSignatureIsTypedAndDocumented(string $name): void
    {
        $class = new \ReflectionClass($name);
        self::assertNotFalse($class->getDocComment(), $name);
        foreach ($class->getMethods(\ReflectionMethod::IS_PUBLIC) as $method) {
            if ($method->getDeclaringClass()->getName() !== $name) {
                continue;
            }
            $where = "$name::{$method->getName()}";
            self::assertNotFalse($method->getDocComment(), $where);
            self::assertTrue($method->isConstructor() || $method->hasReturnType(), $where);
            foreach ($method->getParameters() as $parameter) {
                self::assertTrue($parameter->hasType(), "$where \${$parameter->getName()}");
                $isArray = (string)$parameter->getType() === 'array';
                $isTold = str_contains($method->getDocComment(), "\${$parameter->getName()}");
                self::assertTrue(!$isArray || $isTold, "$where \${$parameter->getName()}");
            }
        }
        foreach ($class->getProperties(\ReflectionProperty::IS_PUBLIC) as $property) {
            self::assertTrue($property->hasType(), "$name \${$property->getName()}");
        }
    }

    public function testTheClientHasItsMethodsAndNoOthers(): void
    {
        $class = new \ReflectionClass(Client::class);
        $names = array_map(fn($method) => $method->getName(), $class->getMethods(\ReflectionMethod::IS_PUBLIC));
        self::assertEqualsCanonicalizing(array_keys(self::METHODS), $names);
        foreach (self::METHODS as $name => $signature) {
            $method = $class->getMethod($name);
            $parameters = array_map(self::written(...), $method->getParameters());
            $return = $method->hasReturnType() ? "): {$method->getReturnType()}" : '';
            self::assertSame($signature, implode(', ', $parameters) . $return);
        }
    }

    public function testThePackageNeedsNoExtension(): void
    {
        $package = json_decode((string)file_get_contents(__DIR__ . '/../composer.json'), true, 8, JSON_THROW_ON_ERROR);
        self::assertSame('korlo/settings', $package['name']);
        self::assertSame(['php' => '>=8.1'], $package['require']);
        self::assertSame(['Korlo\\Settings\\' => 'src/'], $package['autoload']['psr-4']);
    }

    private static function written(\ReflectionParameter $parameter): string
    {
        $dots = $parameter->isVariadic() ? '...' : '';
        $default = '';
        if ($parameter->isDefaultValueAvailable()) {
            $value = $parameter->getDefaultValue();
            $default = ' = ' . ($value === [] ? '[]' : strtolower(var_export($value, true)));
        }
        return "{$parameter->getType()} $dots\${$parameter->getName()}$default";
    }
}
